#!/usr/bin/env bash
# A short tour of the vfs tool on the local, memory and archive providers. Usage: vfs-demo.sh VFS_BINARY
set -euo pipefail
vfs="$1"
demo="$(mktemp -d "${TMPDIR:-/tmp}/vfs-demo-XXXXXX")"
watcher=""
cleanup() {
  [ -z "$watcher" ] || kill "$watcher" 2>/dev/null || true
  rm -rf "$demo"
}
trap cleanup EXIT
step() { printf '\n$ %s\n' "$*"; "$@"; }

echo "== the vfs tool (in $demo)"
step "$vfs" mkdir -p "$demo/notes/2026"
printf 'write files\nread them back\n' | step "$vfs" put "$demo/notes/todo.txt"
printf 'names with spaces and umlauts work\n' | step "$vfs" put "$demo/notes/2026/Grüße & 100%.txt"
step "$vfs" cp -r "$demo/notes" "$demo/backup"
step "$vfs" ls -l "$demo/backup"
step "$vfs" find "$demo"
step "$vfs" du "$demo"
step "$vfs" cat "file://$demo/backup/todo.txt"

# Each vfs process has its own memory tree, gone when the process ends: a copy into memory
# shows that the copy works across providers, and a later process finds nothing there.
step "$vfs" cp -r "$demo/notes" mem:///notes
echo "(copied into the memory tree of that vfs process)"
printf '\n$ %s\n' "$vfs stat mem:///notes"
status=0
"$vfs" stat mem:///notes || status=$?
echo "(exit status $status: a new process has a new, empty memory tree)"

# Archives are folders too: a zip is written when the process ends, and read by unzip; a
# tar made by tar is read in place.
step "$vfs" mkdir -p "zip:file://$demo/notes.zip!/"
step "$vfs" cp -r "$demo/notes" "zip:file://$demo/notes.zip!/"
step unzip -l "$demo/notes.zip"
tar -czf "$demo/notes.tar.gz" -C "$demo" notes
step "$vfs" ls -R "tar:file://$demo/notes.tar.gz!/"
step "$vfs" cat "tar:file://$demo/notes.tar.gz!/notes/todo.txt"

echo
echo "\$ $vfs watch -r $demo   # while another process writes a file"
"$vfs" watch -r "$demo" >"$demo.events" 2>"$demo.watch" &
watcher=$!
for _ in $(seq 1000); do grep -q watching "$demo.watch" 2>/dev/null && break; sleep 0.01; done
echo "changed" | "$vfs" put "$demo/notes/2026/new.txt"
for _ in $(seq 1000); do grep -q 'new.txt' "$demo.events" 2>/dev/null && break; sleep 0.01; done
kill -INT "$watcher"
wait "$watcher"
watcher=""
cat "$demo.events"
echo "(watch ended cleanly on Ctrl-C)"
rm -f "$demo.events" "$demo.watch"

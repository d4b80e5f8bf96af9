#pragma once

// A visitor that records every callback of a walk, numbered in the order they happened
// (thread-safe, for parallel walks too), and answers with results chosen per location.

#include <vfs/vfs.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace testsupport {

namespace vfs = foundation::storage::vfs;

struct Call {
  std::string kind; ///< "before", "file", "after" or "failed"
  std::string path; ///< relative to the walked root ("" for the root)
  std::size_t order;
  std::optional<vfs::ErrorCode> failure; ///< for "failed"
};

class RecordingVisitor : public vfs::FolderVisitor {
public:
  explicit RecordingVisitor(vfs::Folder const& root) : root_(root.getLocation().toString()) {}

  /// What the callback `kind` answers for `path`; Continue unless set.
  void answer(std::string const& kind, std::string const& path, vfs::FolderVisitResult result) {
    answers_[{kind, path}] = result;
  }
  /// Makes the failure callback answer instead of rethrowing.
  void answerFailures(vfs::FolderVisitResult result) { failureAnswer_ = result; }
  /// Runs before the callback `kind` for `path` answers (to throw, or to act on the tree).
  void onCall(std::string const& kind, std::string const& path, std::function<void()> action) {
    actions_[{kind, path}] = std::move(action);
  }

  vfs::FolderVisitResult visitBefore(vfs::Folder const& folder) override {
    return record("before", folder.getLocation());
  }
  vfs::FolderVisitResult visit(vfs::File const& file) override { return record("file", file.getLocation()); }
  vfs::FolderVisitResult visitAfter(vfs::Folder const& folder) override {
    return record("after", folder.getLocation());
  }
  vfs::FolderVisitResult visitFolderFailed(vfs::Folder const& folder, vfs::Exception const& failure) override {
    record("failed", folder.getLocation(), failure.getErrorCode());
    if (failureAnswer_) return *failureAnswer_;
    return FolderVisitor::visitFolderFailed(folder, failure); // rethrows
  }

  std::vector<Call> calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }
  /// "kind:path" of every call, in order.
  std::vector<std::string> sequence() const {
    std::vector<std::string> out;
    for (auto const& call : calls()) out.push_back(call.kind + ":" + call.path);
    return out;
  }
  std::size_t count(std::string const& kind) const {
    std::size_t n = 0;
    for (auto const& call : calls()) n += call.kind == kind;
    return n;
  }
  bool has(std::string const& kind, std::string const& path) const {
    for (auto const& call : calls())
      if (call.kind == kind && call.path == path) return true;
    return false;
  }

private:
  vfs::FolderVisitResult record(std::string const& kind, vfs::AbsoluteIRI const& location,
                                std::optional<vfs::ErrorCode> failure = std::nullopt) {
    std::u16string const text = location.toString();
    std::string path;
    for (std::size_t i = root_.size() + (text.size() > root_.size() ? 1 : 0); i < text.size(); ++i)
      path += static_cast<char>(text[i]); // test names are ASCII
    {
      std::lock_guard lock(mutex_);
      calls_.push_back({kind, path, next_++, failure});
    }
    if (auto action = actions_.find({kind, path}); action != actions_.end()) action->second();
    auto const found = answers_.find({kind, path});
    return found == answers_.end() ? vfs::FolderVisitResult::Continue : found->second;
  }

  std::u16string root_;
  std::map<std::pair<std::string, std::string>, vfs::FolderVisitResult> answers_;
  std::map<std::pair<std::string, std::string>, std::function<void()>> actions_;
  std::optional<vfs::FolderVisitResult> failureAnswer_;
  mutable std::mutex mutex_;
  std::vector<Call> calls_;
  std::size_t next_ = 0;
};

/// The folder holding `path` ("" for a top-level entry).
inline std::string parentOf(std::string const& path) {
  auto const slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

/// Whether `path` lies in the subtree of `folder` (the root "" holds everything).
inline bool isBelow(std::string const& path, std::string const& folder) {
  return folder.empty() ? !path.empty() : path.size() > folder.size() && path.starts_with(folder + "/");
}

/// Checks the causal order of a walk: a folder's before-callback comes before every
/// callback below it, its after-callback after every one of them.
inline void expectCausalOrder(std::vector<Call> const& calls) {
  std::map<std::string, std::size_t> before, after;
  for (auto const& call : calls) {
    if (call.kind == "before") before[call.path] = call.order;
    if (call.kind == "after") after[call.path] = call.order;
  }
  for (auto const& call : calls) {
    for (auto const& [folder, order] : before) {
      if (!isBelow(call.path, folder)) continue;
      EXPECT_LT(order, call.order) << call.kind << ":" << call.path << " before its folder " << folder;
      if (auto const end = after.find(folder); end != after.end() && call.kind != "failed") {
        EXPECT_GT(end->second, call.order) << call.kind << ":" << call.path << " after its folder " << folder;
      }
    }
  }
}

} // namespace testsupport

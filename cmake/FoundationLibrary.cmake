# A shared library of this project under its alias, with its include/ folder for those
# who build against the tree and for those who use the installed package.
function(foundation_add_library target alias)
  add_library(${target} SHARED ${ARGN})
  add_library(${alias} ALIAS ${target})
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:include>)
endfunction()

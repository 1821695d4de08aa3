# Warnings and sanitizers of this project's own targets: link zefs_build_flags PRIVATE.
# zefs_count_coverage(TARGET) counts what is run of a target's code, if ZEFS_COVERAGE says so.

set(ZEFS_SANITIZE "" CACHE STRING "Sanitizers: address (with undefined and leak), thread, or empty")
set_property(CACHE ZEFS_SANITIZE PROPERTY STRINGS "" address thread)

add_library(zefs_build_flags INTERFACE)
target_compile_options(zefs_build_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2 -Wundef
  -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align -Wold-style-cast -Werror)

if(ZEFS_SANITIZE STREQUAL "address")
  set(zefs_sanitizers -fsanitize=address,undefined,leak -fno-sanitize-recover=all)
elseif(ZEFS_SANITIZE STREQUAL "thread")
  set(zefs_sanitizers -fsanitize=thread)
elseif(NOT ZEFS_SANITIZE STREQUAL "")
  message(FATAL_ERROR "ZEFS_SANITIZE is '${ZEFS_SANITIZE}': address, thread or empty is meant")
endif()
if(zefs_sanitizers)
  # For everything, third-party code that is compiled here included: the runtimes must agree.
  add_compile_options(${zefs_sanitizers} -fno-omit-frame-pointer)
  add_link_options(${zefs_sanitizers})
endif()

option(ZEFS_CHECK_LOCKS "Watch the order in which locks are taken; meant for the thread sanitizer" OFF)
if(ZEFS_CHECK_LOCKS)
  # For everything: a lock that one object file knows as another type than the next would be two.
  set(zefs_checked_locks "${PROJECT_SOURCE_DIR}/tests/support/checked_locks")
  include_directories(BEFORE "${PROJECT_SOURCE_DIR}" "${zefs_checked_locks}")
  add_compile_options("SHELL:-include ${zefs_checked_locks}/plain_mutexes.h")
  add_subdirectory("${zefs_checked_locks}")
  target_link_libraries(zefs_build_flags INTERFACE zefs_lock_checker)
endif()

option(ZEFS_COVERAGE "Count which lines and branches of the library are run (scripts/coverage)" OFF)

function(zefs_count_coverage target)
  if(ZEFS_COVERAGE)
    target_compile_options(${target} PRIVATE -O0 --coverage -fprofile-update=atomic)
    target_link_options(${target} PUBLIC --coverage)
  endif()
endfunction()

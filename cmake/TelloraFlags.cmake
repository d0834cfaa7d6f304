# Warning and sanitizer flags shared by every target of the project.
add_library(tellora_flags INTERFACE)
target_compile_options(tellora_flags INTERFACE -Wall -Wextra
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>)
if(TELLORA_WERROR)
  target_compile_options(tellora_flags INTERFACE -Werror)
endif()

if(TELLORA_SANITIZE STREQUAL "address")
  # GCC 12 reports a false maybe-uninitialized inside Beast's HTTP parser under ASan.
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer
                      $<$<CXX_COMPILER_ID:GNU>:-Wno-error=maybe-uninitialized>)
  add_link_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
elseif(TELLORA_SANITIZE STREQUAL "thread")
  # GCC warns that Asio's atomic_thread_fence is not instrumented; nothing to fix on our side.
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer $<$<CXX_COMPILER_ID:GNU>:-Wno-tsan>)
  add_link_options(-fsanitize=thread)
elseif(NOT TELLORA_SANITIZE STREQUAL "")
  message(FATAL_ERROR "TELLORA_SANITIZE must be address, thread or empty")
endif()

# Fuzzing build: every object gets coverage instrumentation, ASan and UBSan; only
# the fuzzers in fuzz/ link the libFuzzer driver (-fsanitize=fuzzer).
if(TELLORA_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang" OR NOT CMAKE_C_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "TELLORA_FUZZ needs clang: configure with CC=clang CXX=clang++")
  endif()
  if(NOT TELLORA_SANITIZE STREQUAL "")
    message(FATAL_ERROR "TELLORA_FUZZ brings its own sanitizers; leave TELLORA_SANITIZE empty")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all
                      -fno-omit-frame-pointer
                      -fsanitize-coverage-ignorelist=${PROJECT_SOURCE_DIR}/fuzz/coverage_ignorelist.txt)
  add_link_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
endif()

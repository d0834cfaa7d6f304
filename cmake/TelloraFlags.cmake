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

# Warning and sanitizer flags shared by every target of the project.
function(orv_target_flags target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  if(ORV_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

if(ORV_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(ORV_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT ORV_SANITIZE STREQUAL "")
  message(FATAL_ERROR "ORV_SANITIZE must be empty, 'address' or 'thread'")
endif()

# libFuzzer harnesses (tests/fuzz), in a clang build directory of their own:
#   CC=clang CXX=clang++ cmake -S . -B build-fuzz -DORV_FUZZ=ON
# The whole project is then instrumented for coverage and checked by ASan and
# UBSan; only the harnesses link libFuzzer's driver.
option(ORV_FUZZ "Build the libFuzzer harnesses (clang only)" OFF)
if(ORV_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "ORV_FUZZ needs clang: configure with CC=clang CXX=clang++")
  endif()
  if(NOT ORV_SANITIZE STREQUAL "")
    message(FATAL_ERROR "ORV_FUZZ brings its own sanitizers; leave ORV_SANITIZE empty")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()

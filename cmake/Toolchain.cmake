# Warnings, sanitizers, ccache and the linker: everything that depends on how we build, not on what.

if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 12)
  message(FATAL_ERROR "GCC ${CMAKE_CXX_COMPILER_VERSION} is too old: 12 or newer is needed (set CXX to choose another)")
endif()

add_library(skein_flags INTERFACE)
# A designated initialiser leaves fields at their defaults on purpose: no warning for those.
target_compile_options(skein_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror -Wno-missing-field-initializers -fno-omit-frame-pointer)
target_include_directories(skein_flags INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_definitions(skein_flags INTERFACE SKEIN_VERSION="${PROJECT_VERSION}")

if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # GCC 12 finds dangling and uninitialised uses inside the standard library and Asio at -O2 that are not there, and sees
  # the allocation of coroutine frames, but not that their operator delete is the one that belongs to it.
  target_compile_options(skein_flags INTERFACE -Wno-maybe-uninitialized -Wno-stringop-overflow -Wno-array-bounds
    -Wno-restrict -Wno-mismatched-new-delete)
endif()

if(SKEIN_SANITIZER STREQUAL "address")
  target_compile_options(skein_flags INTERFACE -fsanitize=address,undefined -fno-sanitize-recover=all)
  target_link_options(skein_flags INTERFACE -fsanitize=address,undefined)
elseif(SKEIN_SANITIZER STREQUAL "thread")
  target_compile_options(skein_flags INTERFACE -fsanitize=thread -Wno-tsan)
  target_link_options(skein_flags INTERFACE -fsanitize=thread)
endif()
if(SKEIN_SANITIZER)
  # Asio's reuse of small blocks would hide a use of a freed coroutine frame.
  target_compile_definitions(skein_flags INTERFACE BOOST_ASIO_DISABLE_SMALL_BLOCK_RECYCLING SKEIN_SANITIZED)
endif()

find_program(SKEIN_CCACHE ccache)
if(SKEIN_CCACHE)
  # Precompiled headers carry their build time; ccache must be told that this does not matter. Nor does the place of the
  # tree: clones and worktrees share what one of them compiled.
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env
    CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime
    CCACHE_BASEDIR=${PROJECT_SOURCE_DIR} CCACHE_NOHASHDIR=1 ${SKEIN_CCACHE})
  if(SKEIN_PCH AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(skein_flags INTERFACE -fpch-preprocess)
  endif()
endif()

find_program(SKEIN_MOLD mold)
if(SKEIN_MOLD AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND NOT SKEIN_SANITIZER)
  target_link_options(skein_flags INTERFACE -fuse-ld=mold)
endif()

# Warnings and hardening, as two interface libraries that every target of ours links.

add_library(kova_warnings INTERFACE)
target_compile_options(kova_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Werror -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
  -Wnon-virtual-dtor -Wcast-qual -Wformat=2 -Wundef -Wmissing-declarations)

# Sanitizers are chosen by the presets: KOVA_SANITIZE is "address,undefined", "thread" or empty.
set(KOVA_SANITIZE "" CACHE STRING "sanitizers to build everything with")
if(KOVA_SANITIZE)
  add_compile_options(-fsanitize=${KOVA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${KOVA_SANITIZE})
  # The sanitizers' own code makes this warning of GCC see what is not there, in the standard library
  # too.
  target_compile_options(kova_warnings INTERFACE
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
endif()

option(KOVA_COVERAGE "count the lines and branches of src/ that run (gcc)" OFF)
if(KOVA_COVERAGE)
  # Several threads count; branches stand as they are written, not as inlined.
  set(KOVA_COUNTING --coverage -fprofile-update=atomic -O0 -fno-inline)
endif()

add_library(kova_hardening INTERFACE)
# A failed assertion of the standard library ends in src/base/failed_assertion.cpp. This version of
# clang keeps zeroed variables behind a further option.
target_compile_definitions(kova_hardening INTERFACE _GLIBCXX_ASSERTIONS)
target_compile_options(kova_hardening INTERFACE
  $<$<CXX_COMPILER_ID:GNU>:-ftrivial-auto-var-init=zero>)
# With them bench/run hardening takes one of the options back.
set(KOVA_LAST_OPTIONS "" CACHE STRING "compiler options behind all others")
set(KOVA_LAST_LINK_OPTIONS "" CACHE STRING "linker options behind all others")
if(WIN32)
  # The runtime formats numbers as C does, so that both targets print the same digits.
  target_compile_definitions(kova_hardening INTERFACE
    __USE_MINGW_ANSI_STDIO=1 _WIN32_WINNT=0x0A00 WIN32_LEAN_AND_MEAN NOMINMAX NOGDI UNICODE _UNICODE)
  target_link_options(kova_hardening INTERFACE
    -static -Wl,--dynamicbase,--high-entropy-va,--nxcompat,--gc-sections)
  # No -fdata-sections: the linker would store zeroed data in the file. The tests are linked whole:
  # this linker's time grows with the square of an object's sections.
  target_compile_options(kova_hardening INTERFACE
    $<$<NOT:$<BOOL:$<TARGET_PROPERTY:KOVA_LINKED_WHOLE>>>:-ffunction-sections>)
else()
  target_compile_options(kova_hardening INTERFACE
    -fPIE -fstack-protector-strong -fstack-clash-protection -fcf-protection=full
    -fvisibility=hidden -ffunction-sections -fdata-sections)
  target_link_options(kova_hardening INTERFACE
    -pie -static-libstdc++ -static-libgcc
    -Wl,-z,relro,-z,now,-z,noexecstack,--as-needed,--gc-sections,--hash-style=gnu,-O1)
  if(NOT KOVA_SANITIZE AND NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
    target_compile_options(kova_hardening INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3)
  endif()
endif()
target_compile_options(kova_hardening INTERFACE ${KOVA_LAST_OPTIONS})
target_link_options(kova_hardening INTERFACE ${KOVA_LAST_LINK_OPTIONS})

# Warnings and instrumentation for every target of the project.
include_guard(GLOBAL)

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE_PROGRAM})
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion)
add_compile_definitions(_GNU_SOURCE _FILE_OFFSET_BITS=64)
if(ORMEL_WERROR)
  add_compile_options(-Werror)
endif()
if(ORMEL_SANITIZE)
  add_compile_options(-fsanitize=${ORMEL_SANITIZE} -fno-sanitize-recover=all
    -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ORMEL_SANITIZE})
  # Their tables are relocated at each start otherwise, which takes longer than most runs.
  string(APPEND CMAKE_EXE_LINKER_FLAGS " -no-pie")
endif()
if(ORMEL_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
if(ORMEL_COVERAGE)
  add_compile_options(--coverage)
  add_link_options(--coverage)
endif()
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")
if(CMAKE_BUILD_TYPE STREQUAL "Release")
  add_compile_options(-fstack-protector-strong)
  add_compile_definitions(_FORTIFY_SOURCE=2)
endif()
add_link_options(-Wl,--as-needed -Wl,-z,relro)

# Short runs spend most of their time on being started. The C++ library inside what is installed
# spares each start its relocations, unused functions are left out, and the addresses that a start
# has to set are listed in a hundredth of the space. Of our libraries the C functions alone are
# exported. The sanitizers and the coverage tools bring their own ideas of all this.
if(ORMEL_SANITIZE OR ORMEL_COVERAGE OR ORMEL_FUZZ)
  set(ORMEL_QUICK_START "")
  set(ORMEL_STATIC_START "")
  set(ORMEL_C_EXPORTS "")
else()
  set(ORMEL_QUICK_START -static-libstdc++ -static-libgcc
    -Wl,--exclude-libs,libstdc++.a:libgcc.a:libgcc_eh.a:libjansson.a:libnettle.a)
  set(ORMEL_STATIC_START -static-pie)  # for tools that need nothing of the host but its kernel
  set(ORMEL_C_EXPORTS LINKER:--version-script=${PROJECT_SOURCE_DIR}/platform/exports.map)
  add_compile_options(-ffunction-sections -fdata-sections)
  add_link_options(-Wl,--gc-sections -Wl,-z,pack-relative-relocs)
endif()

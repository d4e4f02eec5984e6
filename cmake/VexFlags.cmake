# Warnings, sanitizers and coverage for everything that we compile. Headers of others come in as system headers.
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wformat=2
                    -Wcast-align -Wundef -Werror -fno-omit-frame-pointer -Winvalid-pch)
# wx formats through its own checked templates, so a format kept in a table is no danger.
add_compile_options(-Wno-format-nonliteral)
if(CMAKE_BUILD_TYPE STREQUAL "Debug")
  # Small limits give bugs a chance; see docs/TESTING.md.
  add_compile_definitions(VEX_SMALL_LIMITS=1)
endif()

if(VEX_SANITIZE)
  add_compile_options(-fsanitize=${VEX_SANITIZE} -fno-sanitize-recover=all -O1 -g1)
  add_link_options(-fsanitize=${VEX_SANITIZE})
endif()
if(VEX_COVERAGE)
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()

if(VEX_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

add_link_options(LINKER:--as-needed)
if(NOT VEX_SANITIZE)
  # With sanitizers the run time is resolved from the executable, so shared libraries have open symbols.
  add_link_options(LINKER:-z,defs)
endif()

# Sources of one folder that fit this system: name_linux.cpp and name_solaris.cpp exclude each other.
function(vex_platform_sources out)
  file(GLOB sources CONFIGURE_DEPENDS ${ARGN})
  if(CMAKE_SYSTEM_NAME STREQUAL "SunOS")
    list(FILTER sources EXCLUDE REGEX "_linux\\.cpp$")
  else()
    list(FILTER sources EXCLUDE REGEX "_solaris\\.cpp$")
  endif()
  set(${out} ${sources} PARENT_SCOPE)
endfunction()

# Precompiled headers save most of a translation unit's time; every header is also compiled alone in tests/headers.
set(VEX_PCH_WX <algorithm> <atomic> <chrono> <cstdint> <functional> <map> <memory> <mutex> <string> <vector>
    <wx/string.h> <wx/filename.h> <wx/log.h> <wx/thread.h> <wx/app.h> <wx/dir.h> <wx/fileconf.h> <wx/stream.h>
    <wx/datetime.h>)

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

if(CMAKE_SYSTEM_NAME STREQUAL "SunOS")
  # Its compilers may build for 32 bits by themselves. A child of vfork, which borrows our memory, must not find a lock
  # of the run-time linker held: nothing is left to be bound then.
  add_compile_options(-m64)
  add_link_options(-m64 LINKER:-z,ignore LINKER:-z,now)
else()
  add_link_options(LINKER:--as-needed)
endif()
if(NOT VEX_SANITIZE)
  # With sanitizers the run time is resolved from the executable, so shared libraries have open symbols.
  add_link_options(LINKER:-z,defs)
endif()

# What is shipped runs as root on hosts of others: an overwritten return address, table of the linker or jump ends the
# process instead of going where somebody else wants it. Not for sanitizers, which do it their own way, nor for test code,
# which is not optimised, as the checks of the C library's calls need it to be.
set(VEX_SHIPPED OFF)
if(CMAKE_BUILD_TYPE STREQUAL "RelWithDebInfo" AND NOT VEX_SANITIZE AND NOT VEX_COVERAGE)
  set(VEX_SHIPPED ON)
endif()
function(vex_harden)
  if(NOT VEX_SHIPPED)
    return()
  endif()
  foreach(target IN LISTS ARGN)
    target_compile_options(${target} PRIVATE -fstack-protector-strong -fstack-clash-protection -U_FORTIFY_SOURCE
                                             -D_FORTIFY_SOURCE=2)
    # The same sources give the same bytes, wherever they lie.
    target_compile_options(${target} PRIVATE -ffile-prefix-map=${CMAKE_SOURCE_DIR}=. -ffile-prefix-map=${CMAKE_BINARY_DIR}=./build)
    target_link_options(${target} PRIVATE LINKER:-z,now)
    if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
      # Our code has a mark at every place that may be jumped to, but the start files of the C library have none: so the
      # binaries name the shadow stack alone.
      target_compile_options(${target} PRIVATE -fcf-protection=full)
      target_link_options(${target} PRIVATE LINKER:-z,relro LINKER:-z,noexecstack LINKER:-z,shstk
                                                    LINKER:--build-id)
    endif()
  endforeach()
endfunction()

# Debug data is kept in a file of its own beside the binary, which names it: NAME.debug. `cmake --install --component debug`
# puts it where a debugger looks.
function(vex_split_debug_data target destination)
  if(NOT VEX_SHIPPED OR NOT CMAKE_OBJCOPY)
    return()
  endif()
  set(debug_file $<TARGET_FILE:${target}>.debug)
  add_custom_command(
    TARGET ${target} POST_BUILD
    COMMAND ${CMAKE_OBJCOPY} --only-keep-debug $<TARGET_FILE:${target}> ${debug_file}
    COMMAND ${CMAKE_OBJCOPY} --strip-debug --add-gnu-debuglink=${debug_file} $<TARGET_FILE:${target}>
    VERBATIM)
  install(FILES ${debug_file} DESTINATION ${destination} COMPONENT debug EXCLUDE_FROM_ALL)
endfunction()

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

# Several sources of a target are compiled as one unit, which halves the time of a build: most of it goes into headers and
# templates that every source compiles again. ROOMS makes a unit of each folder: the linker takes a unit as a whole, so that
# what links an archive of the objects gets the rooms that it uses. The room that stands above all others has a unit for each
# source, or who needs one of them got every room. BATCH is how many sources a unit has else: the more, the less each costs,
# and the more is compiled again when one of them changes. VEX_UNITY is OFF for those that need each source by itself.
# Shipped code has no precompiled header: with one, gcc's debug data depends on the folder that the sources lie in.
function(vex_unity target)
  cmake_parse_arguments(arg "ROOMS" "BATCH" "" ${ARGN})
  if(NOT VEX_UNITY)
    return()
  endif()
  if(NOT arg_BATCH)
    set(arg_BATCH 24)
  endif()
  set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE ${arg_BATCH})
  if(arg_ROOMS)
    set_target_properties(${target} PROPERTIES UNITY_BUILD_MODE GROUP)
    get_target_property(sources ${target} SOURCES)
    foreach(source IN LISTS sources)
      get_filename_component(folder ${source} DIRECTORY)
      get_filename_component(room ${folder} NAME)
      if(NOT room STREQUAL lifecycle)
        set_source_files_properties(${source} PROPERTIES UNITY_GROUP ${room})
      endif()
    endforeach()
  endif()
  # A local name that another source of the unit has too hides nothing that its own source knows.
  target_compile_options(${target} PRIVATE -Wno-shadow)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # It makes an exception for the main file alone, which in a unit no source is.
    target_compile_options(${target} PRIVATE -Wno-subobject-linkage)
  endif()
endfunction()

# What test programs precompile.
set(VEX_PCH_WX <algorithm> <atomic> <chrono> <cstdint> <functional> <map> <memory> <mutex> <string> <vector>
    <wx/string.h> <wx/filename.h> <wx/log.h> <wx/thread.h> <wx/app.h> <wx/dir.h> <wx/fileconf.h> <wx/stream.h>
    <wx/datetime.h>)

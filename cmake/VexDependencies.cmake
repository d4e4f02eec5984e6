# Finds what we build on. Every library comes from the distribution; see docs/DEPENDENCIES.md for why each is here.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)

# wx-config of the distribution belongs to a build with a GUI: asked for "base" it names the base library alone.
find_program(WX_CONFIG NAMES wx-config REQUIRED)
execute_process(COMMAND ${WX_CONFIG} --cxxflags base OUTPUT_VARIABLE wx_cxxflags
                OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${WX_CONFIG} --libs base OUTPUT_VARIABLE wx_libs
                OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
separate_arguments(wx_cxxflags UNIX_COMMAND "${wx_cxxflags}")
separate_arguments(wx_libs UNIX_COMMAND "${wx_libs}")
add_library(vex_wx INTERFACE)
foreach(flag IN LISTS wx_cxxflags)
  if(flag MATCHES "^-I(.+)")
    target_include_directories(vex_wx SYSTEM INTERFACE "${CMAKE_MATCH_1}")
  elseif(flag MATCHES "^-D(.+)")
    target_compile_definitions(vex_wx INTERFACE "${CMAKE_MATCH_1}")
  endif()
endforeach()
target_link_libraries(vex_wx INTERFACE ${wx_libs} Threads::Threads)
add_library(vex::wx ALIAS vex_wx)

pkg_check_modules(lua REQUIRED IMPORTED_TARGET lua5.2-c++)
pkg_check_modules(openssl REQUIRED IMPORTED_TARGET libssl libcrypto)
pkg_check_modules(sqlite REQUIRED IMPORTED_TARGET sqlite3)
pkg_check_modules(deflate REQUIRED IMPORTED_TARGET libdeflate)
pkg_check_modules(zlib REQUIRED IMPORTED_TARGET zlib)
# Inflates big entries in half the time; where there is none, zlib does it.
option(VEX_ISAL "Use ISA-L where the system has it" ON)
if(VEX_ISAL)
  pkg_check_modules(isal IMPORTED_TARGET libisal)
endif()
find_package(pugixml REQUIRED)
find_package(Python3 REQUIRED COMPONENTS Interpreter)

foreach(pair lua openssl sqlite deflate zlib)
  add_library(vex::${pair} ALIAS PkgConfig::${pair})
endforeach()

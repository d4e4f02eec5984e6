# The installed tree, and the same tree staged by every build so that it can be run where it lies.
install(TARGETS vx_agent vexctl RUNTIME DESTINATION .)
install(TARGETS vex_core slb3 LIBRARY DESTINATION lib NAMELINK_SKIP)
install(FILES ${VEX_ARCHIVES} DESTINATION vex_core)
# The manual: pages as they are, and that of the settings with the tables of docs/SETTINGS.md in it.
add_custom_command(
  OUTPUT ${CMAKE_BINARY_DIR}/man/vx_agent.conf.5
  COMMAND ${Python3_EXECUTABLE} ${CMAKE_SOURCE_DIR}/tools/manual_page.py ${CMAKE_SOURCE_DIR}/docs/SETTINGS.md
          ${CMAKE_SOURCE_DIR}/docs/man/vx_agent.conf.5 ${CMAKE_BINARY_DIR}/man/vx_agent.conf.5
  DEPENDS ${CMAKE_SOURCE_DIR}/docs/SETTINGS.md ${CMAKE_SOURCE_DIR}/docs/man/vx_agent.conf.5
          ${CMAKE_SOURCE_DIR}/tools/manual_page.py
  VERBATIM)
set(manual ${CMAKE_BINARY_DIR}/man/vx_agent.conf.5)
foreach(page vexctl.1 vx_agent-events.7 vx_agent-plugin.7 vx_agent.8)
  list(APPEND manual ${CMAKE_SOURCE_DIR}/docs/man/${page})
endforeach()
foreach(page IN LISTS manual)
  string(REGEX MATCH "[0-9]$" section ${page})
  install(FILES ${page} DESTINATION share/man/man${section})
endforeach()

# Where a package manager installs, the example plugins come as they are once the launcher has unpacked their packages.
install(DIRECTORY ${CMAKE_SOURCE_DIR}/lua/plugins/network DESTINATION . COMPONENT plugins EXCLUDE_FROM_ALL
        FILES_MATCHING PATTERN "*.lua")
install(FILES ${CMAKE_BINARY_DIR}/packages/ext/trend.vxe ${CMAKE_BINARY_DIR}/packages/ext/trend.vxe.version DESTINATION ext
        COMPONENT plugins EXCLUDE_FROM_ALL)

add_custom_command(
  OUTPUT ${CMAKE_BINARY_DIR}/staged.stamp
  COMMAND ${CMAKE_COMMAND} --install ${CMAKE_BINARY_DIR} --prefix ${VEX_STAGE_DIR} > ${CMAKE_BINARY_DIR}/stage.log
  COMMAND ${CMAKE_COMMAND} -E touch ${CMAKE_BINARY_DIR}/staged.stamp
  DEPENDS vx_agent vexctl vex_core slb3 ${VEX_ARCHIVES} ${manual}
  COMMENT "Staging to ${VEX_STAGE_DIR}"
  VERBATIM)
add_custom_target(stage ALL DEPENDS ${CMAKE_BINARY_DIR}/staged.stamp)

# What a display (component daemon) and a workbench (component qv) need. The systemd unit names the folder that the daemon
# is installed to.
include(GNUInstallDirs)
set(VORLAN_UNIT_DIR lib/systemd/system CACHE STRING "where systemd looks for units, relative to the prefix or absolute")

if(VORLAN_BUILD_DAEMON)
  configure_file(packaging/vorlan.service.in vorlan.service @ONLY)
  install(TARGETS vorlan RUNTIME COMPONENT daemon)
  install(FILES ${PROJECT_BINARY_DIR}/vorlan.service DESTINATION ${VORLAN_UNIT_DIR} COMPONENT daemon)
  install(FILES packaging/com.kelvora.vorlan.xml DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/interfaces COMPONENT daemon)
  install(FILES packaging/com.kelvora.vorlan.conf DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/system.d COMPONENT daemon)
  install(FILES packaging/vorlan.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT daemon)
endif()
if(VORLAN_BUILD_QV)
  install(TARGETS vorlan-qv RUNTIME COMPONENT qv)
  install(FILES packaging/vorlan-qv.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT qv)
  install(FILES qv/boot.example DESTINATION ${CMAKE_INSTALL_DATADIR}/vorlan-qv COMPONENT qv)
endif()

# The chain service's skeleton, generated from the interface description into the build tree and
# compiled into the library. Included from the root after the library target exists.
include(${CMAKE_CURRENT_LIST_DIR}/DbusCodegen.cmake)
orvandeldsp_dbus_code(orvandeldsp ChainDbus ${CMAKE_CURRENT_SOURCE_DIR}/dbus/com.orvandeldsp.Chain.xml)
install(FILES ${ORVANDELDSP_DBUS_CODE_DIR}/ChainDbus.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${ORVANDELDSP_INCLUDE_SUBDIR}/dbus)

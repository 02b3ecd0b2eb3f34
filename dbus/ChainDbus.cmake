# The chain service's skeleton, generated from the interface description into the build tree and
# compiled into the library. Included from the root after the library's object target exists; the
# generated header is internal and not installed.
include(${CMAKE_CURRENT_LIST_DIR}/DbusCodegen.cmake)
orvandeldsp_dbus_code(orvandeldsp-objects ChainDbus ${CMAKE_CURRENT_SOURCE_DIR}/dbus/com.orvandeldsp.Chain.xml)

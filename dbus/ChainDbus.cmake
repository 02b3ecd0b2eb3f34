# The chain service's skeleton, generated from the interface description into the build tree and
# compiled into the library. Included from the root after the library target exists.
find_program(GDBUS_CODEGEN gdbus-codegen REQUIRED)
set(ORVANDELDSP_CHAIN_DBUS_XML ${CMAKE_CURRENT_SOURCE_DIR}/dbus/com.orvandeldsp.Chain.xml)
set(ORVANDELDSP_CHAIN_DBUS_OUT ${CMAKE_BINARY_DIR}/generated/dbus)
add_custom_command(
  OUTPUT ${ORVANDELDSP_CHAIN_DBUS_OUT}/ChainDbus.c ${ORVANDELDSP_CHAIN_DBUS_OUT}/ChainDbus.h
  COMMAND ${CMAKE_COMMAND} -E make_directory ${ORVANDELDSP_CHAIN_DBUS_OUT}
  COMMAND ${GDBUS_CODEGEN} --interface-prefix com.orvandeldsp. --c-namespace OrvandelDsp
          --generate-c-code ${ORVANDELDSP_CHAIN_DBUS_OUT}/ChainDbus ${ORVANDELDSP_CHAIN_DBUS_XML}
  DEPENDS ${ORVANDELDSP_CHAIN_DBUS_XML}
  COMMENT "Generating the chain service skeleton from com.orvandeldsp.Chain.xml"
  VERBATIM)
target_sources(orvandeldsp-objects PRIVATE ${ORVANDELDSP_CHAIN_DBUS_OUT}/ChainDbus.c ${ORVANDELDSP_CHAIN_DBUS_OUT}/ChainDbus.h)
# Generated code is not held to the project's warning flags.
set_source_files_properties(${ORVANDELDSP_CHAIN_DBUS_OUT}/ChainDbus.c PROPERTIES COMPILE_OPTIONS "-w")

# Run by cmake --install (see dist/CMakeLists.txt) for the prefix installed to. The service and the bus
# policies go where systemd and the system bus look for them: under /usr for a /usr install; the unit
# under /usr/local and the policies in /etc for the default /usr/local. For any other prefix everything
# stays inside it, to be linked in by hand. A first install also puts the live config and the devices'
# environment file into /etc/orvandeldsp; later ones leave them as the admin edited them.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(policyDir "/usr/share/dbus-1/system.d")
  set(configDir "/etc/orvandeldsp")
elseif(CMAKE_INSTALL_PREFIX STREQUAL "/usr/local")
  set(policyDir "/etc/dbus-1/system.d")
  set(configDir "/etc/orvandeldsp")
else()
  set(policyDir "${CMAKE_INSTALL_PREFIX}/share/dbus-1/system.d")
  set(configDir "${CMAKE_INSTALL_PREFIX}/etc/orvandeldsp")
endif()

set(BINDIR "${CMAKE_INSTALL_PREFIX}/${ORVANDELDSP_BINDIR}")
set(unit "${ORVANDELDSP_DIST_BUILD_DIR}/orvandeldsp-live.service")
configure_file("${ORVANDELDSP_SOURCE_DIR}/dist/orvandeldsp-live.service.in" "${unit}" @ONLY)
file(INSTALL "${unit}" DESTINATION "${CMAKE_INSTALL_PREFIX}/lib/systemd/system")
file(INSTALL "${ORVANDELDSP_SOURCE_DIR}/dbus/com.orvandeldsp.Chain.conf"
  "${ORVANDELDSP_SOURCE_DIR}/dbus/com.orvandeldsp.Host.conf" DESTINATION "${policyDir}")
if(NOT policyDir MATCHES "^/(usr/share|etc)/dbus-1/system.d$")
  message(STATUS "To serve on the system bus, copy ${policyDir}/com.orvandeldsp.*.conf to /etc/dbus-1/system.d/")
endif()

foreach(pair "dist/live.env:live.env" "configs/live-line-in.xml:live.xml")
  string(REPLACE ":" ";" pair "${pair}")
  list(GET pair 0 source)
  list(GET pair 1 name)
  if(NOT EXISTS "$ENV{DESTDIR}${configDir}/${name}")
    file(INSTALL "${ORVANDELDSP_SOURCE_DIR}/${source}" DESTINATION "${configDir}" RENAME "${name}")
  endif()
endforeach()

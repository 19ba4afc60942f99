# Run at install time: writes qxfile.service with the path of the service
# executable under the prefix actually installed to (cmake --install --prefix
# may differ from the configured one).
#   QX_UNIT_TEMPLATE   qxfile.service.in
#   QX_UNIT_OUTPUT     where to write the unit before it is installed
#   QX_LIBEXECDIR      the libexec folder, relative to the prefix or absolute
if(IS_ABSOLUTE "${QX_LIBEXECDIR}")
  set(libexec "${QX_LIBEXECDIR}")
else()
  set(libexec "${CMAKE_INSTALL_PREFIX}/${QX_LIBEXECDIR}")
endif()
set(QXFILE_SERVICE_EXECUTABLE "${libexec}/qxfile-service")
configure_file("${QX_UNIT_TEMPLATE}" "${QX_UNIT_OUTPUT}" @ONLY)

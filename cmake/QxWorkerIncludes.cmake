# The include half of the worker rule: a worker source includes nothing from
# service/, protocol/ or platform/xpc/.
#
# Included by QxModule.cmake, or run alone on some files:
#   cmake -DQX_CHECK_FILES="a.cpp;b.h" -P cmake/QxWorkerIncludes.cmake
set(QX_WORKER_FORBIDDEN service protocol platform/xpc)

function(qx_check_worker_includes name)
  foreach(file IN LISTS ARGN)
    file(STRINGS ${file} lines REGEX "^[ \t]*#[ \t]*include[ \t]*[\"<]")
    foreach(line IN LISTS lines)
      foreach(folder IN LISTS QX_WORKER_FORBIDDEN)
        if(line MATCHES "[\"<]${folder}/")
          message(FATAL_ERROR "${name}: ${file} includes ${folder}/ (${line}); "
                              "workers know nothing of connections")
        endif()
      endforeach()
    endforeach()
  endforeach()
endfunction()

if(CMAKE_SCRIPT_MODE_FILE AND QX_CHECK_FILES)
  qx_check_worker_includes(check ${QX_CHECK_FILES})
endif()

# Helpers shared by every module's CMakeLists.txt.
#
# qx_module(NAME [DEPS targets...] [SOURCES extra files...])
#   A static library from the *.cpp files of the calling folder. Include paths
#   are rooted at the repository, so headers are included as
#   "platform/foundation/String.h", "model/QXAclEntry.h", ...
#
# qx_test(NAME [DEPS targets...] [ENVIRONMENT VAR=value...] [LABELS ...])
#   A GoogleTest executable from the *.cpp files of the calling folder,
#   registered with CTest test by test.

function(qx_module name)
  cmake_parse_arguments(ARG "" "" "DEPS;SOURCES" ${ARGN})
  file(GLOB srcs CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  list(APPEND srcs ${ARG_SOURCES})
  add_library(${name} STATIC ${srcs})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${ARG_DEPS})
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON)
endfunction()

function(qx_test name)
  cmake_parse_arguments(ARG "" "" "DEPS;ENVIRONMENT;LABELS;SOURCES" ${ARGN})
  file(GLOB srcs CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  list(APPEND srcs ${ARG_SOURCES})
  add_executable(${name} ${srcs})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gtest GTest::gmock GTest::gtest_main)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  target_compile_definitions(${name} PRIVATE
    QX_SOURCE_DIR="${PROJECT_SOURCE_DIR}" QX_BINARY_DIR="${PROJECT_BINARY_DIR}")
  if(ARG_ENVIRONMENT)
    # Lists do not survive gtest_discover_tests' PROPERTIES, so the environment
    # goes into a launcher that CTest runs the binary through.
    set(launcher ${CMAKE_CURRENT_BINARY_DIR}/${name}-launcher.sh)
    list(JOIN ARG_ENVIRONMENT "\" \"" assignments)
    file(WRITE ${launcher} "#!/bin/sh\nexec env \"${assignments}\" \"$@\"\n")
    file(CHMOD ${launcher} PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ
         GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
    set_target_properties(${name} PROPERTIES CROSSCOMPILING_EMULATOR ${launcher})
  endif()
  set(properties TIMEOUT 300)
  if(ARG_LABELS)
    list(APPEND properties LABELS ${ARG_LABELS})
  endif()
  gtest_discover_tests(${name}
    DISCOVERY_MODE PRE_TEST
    DISCOVERY_TIMEOUT 60
    PROPERTIES ${properties})
endfunction()

# qx_worker(NAME [DEPS targets...])
#   A worker library: a qx_module that knows nothing of connections. Its
#   sources include nothing from service/, protocol/ or platform/xpc/ (checked
#   when configuring, QxWorkerIncludes.cmake), and a program linking the whole
#   library with its own DEPS alone must resolve every symbol (checked when
#   building), so a worker that reaches for the connection layer or the
#   protocols fails the build.
include(${CMAKE_CURRENT_LIST_DIR}/QxWorkerIncludes.cmake)

# The link half of the rule, for any library: NAME_linkcheck links it whole.
function(qx_worker_linkcheck name)
  add_executable(${name}_linkcheck ${ARGN} ${PROJECT_SOURCE_DIR}/cmake/LinkCheck.cpp)
  target_link_libraries(${name}_linkcheck PRIVATE "$<LINK_LIBRARY:WHOLE_ARCHIVE,${name}>")
endfunction()

function(qx_worker name)
  cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
  foreach(dep IN LISTS ARG_DEPS)
    if(dep MATCHES "^qx_(xpc|protocol|service)$")
      message(FATAL_ERROR "${name}: a worker does not link ${dep}")
    endif()
  endforeach()
  qx_module(${name} DEPS ${ARG_DEPS})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp
       ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
  qx_check_worker_includes(${name} ${sources})
  qx_worker_linkcheck(${name})
endfunction()

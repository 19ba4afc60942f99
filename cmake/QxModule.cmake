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
  gtest_discover_tests(${name}
    DISCOVERY_MODE PRE_TEST
    DISCOVERY_TIMEOUT 60
    PROPERTIES ENVIRONMENT "${ARG_ENVIRONMENT}" LABELS "${ARG_LABELS}" TIMEOUT 300)
endfunction()

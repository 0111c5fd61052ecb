# kr_cc_library(NAME name HDRS ... SRCS ... DEPS ...)
#   One subsystem: an object library that is linked into libkr.so.
#   Its headers are installed under include/ with their repository path.
# kr_cc_test(NAME name SRCS ... DEPS ...)
#   A GoogleTest binary linked against libkr, registered with ctest.
set(KR_OBJECT_LIBS "" CACHE INTERNAL "")
set(KR_PUBLIC_HEADERS "" CACHE INTERNAL "")

function(kr_cc_library)
  cmake_parse_arguments(A "" "NAME" "HDRS;SRCS;DEPS" ${ARGN})
  set(target kr_${A_NAME})
  add_library(${target} OBJECT ${A_SRCS} ${A_HDRS})
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
  foreach(dep IN LISTS A_DEPS)
    # Object libraries only borrow each other's include paths and flags; the
    # objects themselves meet in libkr.so.
    target_include_directories(${target} PUBLIC $<TARGET_PROPERTY:${dep},INTERFACE_INCLUDE_DIRECTORIES>)
  endforeach()
  set(KR_OBJECT_LIBS ${KR_OBJECT_LIBS} ${target} CACHE INTERNAL "")
  foreach(h IN LISTS A_HDRS)
    file(RELATIVE_PATH rel ${PROJECT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR}/${h})
    set(KR_PUBLIC_HEADERS ${KR_PUBLIC_HEADERS} ${rel} CACHE INTERNAL "")
  endforeach()
endfunction()

function(kr_cc_test)
  cmake_parse_arguments(A "" "NAME" "SRCS;DEPS" ${ARGN})
  if(NOT KR_BUILD_TESTS)
    return()
  endif()
  add_executable(${A_NAME} ${A_SRCS})
  target_link_libraries(${A_NAME} PRIVATE kr ${A_DEPS} GTest::gtest GTest::gtest_main)
  gtest_discover_tests(${A_NAME} DISCOVERY_TIMEOUT 60
    PROPERTIES ENVIRONMENT "KR_SOURCE_DIR=${PROJECT_SOURCE_DIR}")
endfunction()

# house_add_library(<name>
#   NAMESPACE <ns>      # the target is usable as <ns>::<name>, here and from the installed package
#   HEADERS <file>...   # public headers: installed, and each checked to compile alone
#   SOURCES <file>...
#   PUBLIC <target>...  # linked, and found again by users of the installed package
#   PRIVATE <target>... # linked; unknown to users
#   TESTS <file>...     # one executable <name>_tests, registered with CTest under the label unit
# )
#
# Adds a shared library with hidden visibility, its export header <name>/api.h (macro <NAME>_API),
# its tests, its CMake package <name>Config.cmake and its pkg-config file <name>.pc.

include(CMakePackageConfigHelpers)
include(GenerateExportHeader)

function(house_add_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "NAMESPACE" "HEADERS;SOURCES;PUBLIC;PRIVATE;TESTS")
  if(arg_UNPARSED_ARGUMENTS OR NOT arg_NAMESPACE OR NOT arg_SOURCES)
    message(FATAL_ERROR "house_add_library(${name}): wrong arguments: ${arg_UNPARSED_ARGUMENTS}")
  endif()
  string(TOUPPER ${name} upper)
  set(generated "${CMAKE_CURRENT_BINARY_DIR}/generated")

  add_library(${name} SHARED ${arg_SOURCES})
  add_library(${arg_NAMESPACE}::${name} ALIAS ${name})
  set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION}
                                           SOVERSION ${PROJECT_VERSION_MAJOR})
  generate_export_header(${name} EXPORT_MACRO_NAME ${upper}_API
                         EXPORT_FILE_NAME "${generated}/${name}/api.h")
  target_include_directories(${name}
    PUBLIC "$<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}>" "$<BUILD_INTERFACE:${generated}>"
           "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")
  target_compile_features(${name} PUBLIC cxx_std_20)
  target_link_libraries(${name} PUBLIC ${arg_PUBLIC})
  foreach(dependency IN LISTS arg_PRIVATE)
    target_link_libraries(${name} PRIVATE "$<BUILD_INTERFACE:${dependency}>")
  endforeach()
  house_target_warnings(${name})

  house_install_library(${name} ${arg_NAMESPACE} "${arg_HEADERS}" "${arg_PUBLIC}")
  if(JX_CHECK_HEADERS AND arg_HEADERS)
    house_check_headers(${name} ${arg_HEADERS})
  endif()
  if(JX_BUILD_TESTS AND arg_TESTS)
    house_add_tests(${name}_tests SOURCES ${arg_TESTS} LINK ${name} ${arg_PRIVATE})
    target_include_directories(${name}_tests PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}/src")
  endif()
endfunction()

# house_add_tests(<target> [ALONE <filter>] SOURCES <file>... LINK <target>...): a GoogleTest
# executable. Those of its tests that measure time in ratios run while no other test does.
function(house_add_tests target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "ALONE" "SOURCES;LINK")
  add_executable(${target} ${arg_SOURCES})
  target_link_libraries(${target} PRIVATE ${arg_LINK} house::test_support GTest::gmock_main)
  target_include_directories(${target} PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}")
  house_target_warnings(${target})
  set(discovery DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60)
  set(properties PROPERTIES TIMEOUT 120 LABELS unit)
  if(arg_ALONE)
    gtest_discover_tests(${target} ${discovery} TEST_FILTER ${arg_ALONE} ${properties} RUN_SERIAL TRUE)
    set(others TEST_FILTER -${arg_ALONE})
  endif()
  gtest_discover_tests(${target} ${discovery} ${others} ${properties})
endfunction()

# house_add_long_run(<target> <filter>): those tests once more as one CTest entry with the label
# long, which the everyday run leaves out, and ten times the rounds (house::rounds).
function(house_add_long_run target filter)
  add_test(NAME ${target}.long COMMAND ${target} --gtest_filter=${filter})
  set_tests_properties(${target}.long PROPERTIES LABELS long TIMEOUT 900 ENVIRONMENT JX_TEST_ROUNDS=10)
endfunction()

# house_add_fault_runs(<target> <everyday filter> <long filter>): those tests once more, their links
# to other processes split into small writes, and delayed (house::Link); the second ones in the long
# run, and under a sanitizer, which makes them too slow for every day, all of them.
function(house_add_fault_runs target everyday long)
  set(label unit)
  if(CMAKE_CXX_FLAGS MATCHES "-fsanitize")
    set(label long)
  endif()
  foreach(fault split delay)
    add_test(NAME ${target}.${fault} COMMAND ${target} --gtest_filter=${everyday})
    add_test(NAME ${target}.${fault}.long COMMAND ${target} --gtest_filter=${long})
    set_tests_properties(${target}.${fault} PROPERTIES LABELS ${label} TIMEOUT 300
                                                       ENVIRONMENT HOUSE_FAULTS=${fault})
    set_tests_properties(${target}.${fault}.long PROPERTIES LABELS long TIMEOUT 900
                                                            ENVIRONMENT HOUSE_FAULTS=${fault})
  endforeach()
endfunction()

# Compiles each header as a source of its own, so that none relies on what was included before it.
function(house_check_headers name)
  set(sources)
  foreach(header IN LISTS ARGN)
    string(MAKE_C_IDENTIFIER "${header}" identifier)
    set(source "${CMAKE_CURRENT_BINARY_DIR}/headers_alone/${identifier}.cpp")
    file(GENERATE OUTPUT "${source}" CONTENT "#include <${header}>\n")
    list(APPEND sources "${source}")
  endforeach()
  add_library(${name}_headers_alone OBJECT ${sources})
  target_link_libraries(${name}_headers_alone PRIVATE ${name})
  house_target_warnings(${name}_headers_alone)
endfunction()

function(house_install_library name namespace headers public)
  set(packageDir "${CMAKE_INSTALL_LIBDIR}/cmake/${name}")
  install(TARGETS ${name} EXPORT ${name}Targets
          LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
          ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}"
          RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
  foreach(header IN LISTS headers)
    cmake_path(GET header PARENT_PATH folder)
    install(FILES "${header}" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/${folder}")
  endforeach()
  install(FILES "${CMAKE_CURRENT_BINARY_DIR}/generated/${name}/api.h"
          DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/${name}")
  install(EXPORT ${name}Targets NAMESPACE ${namespace}:: DESTINATION "${packageDir}")

  set(dependencies "")
  set(requires "")
  set(extraLibs "")
  foreach(dependency IN LISTS public)
    if(dependency MATCHES "^(gv|jx)::(.*)$")
      string(APPEND dependencies
             "find_dependency(${CMAKE_MATCH_2} CONFIG HINTS \"\${PACKAGE_PREFIX_DIR}\")\n")
      list(APPEND requires "${CMAKE_MATCH_2} = ${PROJECT_VERSION}")
    elseif(dependency STREQUAL "Boost::headers")
      string(APPEND dependencies "find_dependency(Boost 1.74)\n")
    elseif(dependency MATCHES "^Boost::(.*)$")
      string(APPEND dependencies "find_dependency(Boost 1.74 COMPONENTS ${CMAKE_MATCH_1})\n")
      list(APPEND extraLibs "-lboost_${CMAKE_MATCH_1}")
    elseif(dependency STREQUAL "Threads::Threads")
      string(APPEND dependencies "find_dependency(Threads)\n")
      list(APPEND extraLibs "-pthread")
    else()
      message(FATAL_ERROR "${name}: no rule for the installed package to find ${dependency}")
    endif()
  endforeach()
  list(JOIN requires ", " PC_REQUIRES)
  list(JOIN extraLibs " " PC_EXTRA_LIBS)
  set(PC_NAME ${name})
  set(PACKAGE_NAME ${name})
  set(PACKAGE_DEPENDENCIES "${dependencies}")

  configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/PackageConfig.cmake.in"
    "${CMAKE_CURRENT_BINARY_DIR}/${name}Config.cmake" INSTALL_DESTINATION "${packageDir}")
  write_basic_package_version_file("${CMAKE_CURRENT_BINARY_DIR}/${name}ConfigVersion.cmake"
    COMPATIBILITY SameMajorVersion)
  install(FILES "${CMAKE_CURRENT_BINARY_DIR}/${name}Config.cmake"
                "${CMAKE_CURRENT_BINARY_DIR}/${name}ConfigVersion.cmake"
          DESTINATION "${packageDir}")

  cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_LIBDIR BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}"
             OUTPUT_VARIABLE libdir)
  string(REGEX REPLACE "[^/]+" ".." PC_PREFIX_UP "${libdir}/pkgconfig")
  configure_file("${PROJECT_SOURCE_DIR}/cmake/package.pc.in"
                 "${CMAKE_CURRENT_BINARY_DIR}/${name}.pc" @ONLY)
  install(FILES "${CMAKE_CURRENT_BINARY_DIR}/${name}.pc"
          DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
endfunction()

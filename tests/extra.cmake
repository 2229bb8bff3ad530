# Extra link dependencies of particular test executables; included by
# tests/CMakeLists.txt after every test target exists. Append as needed.

# Tests of the switch simulator, and any test that runs it in-process.
file(GLOB_RECURSE TAVRO_SWITCHSIM_TESTS CONFIGURE_DEPENDS
  ${CMAKE_CURRENT_SOURCE_DIR}/tools/SwitchSimulator*Test.cpp)
foreach(src IN LISTS TAVRO_SWITCHSIM_TESTS)
  get_filename_component(name ${src} NAME_WE)
  target_link_libraries(${name} PRIVATE tavro_switchsim)
endforeach()

# End-to-end tests run the switch simulator in-process. They listen on the
# switch service ports of this host, so no two of them may run at once.
file(GLOB_RECURSE TAVRO_E2E_TESTS CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/e2e/*E2eTest.cpp)
set(TAVRO_E2E_LOCKS ${CMAKE_CURRENT_BINARY_DIR}/e2e_locks.cmake)
file(WRITE ${TAVRO_E2E_LOCKS} "# Generated: serialises the end-to-end tests.\n")
foreach(src IN LISTS TAVRO_E2E_TESTS)
  get_filename_component(name ${src} NAME_WE)
  target_link_libraries(${name} PRIVATE tavro_switchsim)
  file(APPEND ${TAVRO_E2E_LOCKS}
    "if(${name}_TESTS)\n  set_tests_properties(\${${name}_TESTS} PROPERTIES RESOURCE_LOCK tavro_service_ports)\nendif()\n")
endforeach()
set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${TAVRO_E2E_LOCKS})

# Tests of the fault soak's parts.
file(GLOB_RECURSE TAVRO_SOAK_TESTS CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/tools/Soak*Test.cpp)
foreach(src IN LISTS TAVRO_SOAK_TESTS)
  get_filename_component(name ${src} NAME_WE)
  target_link_libraries(${name} PRIVATE tavro_soak)
endforeach()

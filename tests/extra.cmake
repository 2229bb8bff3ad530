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

# tavroctl against the simulator, both as programs (under the emulator when
# cross-built). They hold the switch service ports of this host.
find_program(TAVRO_TEST_PYTHON NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH)
if(TAVRO_TEST_PYTHON)
  add_test(NAME TavroctlAgainstSimulator
    COMMAND ${TAVRO_TEST_PYTHON} ${CMAKE_CURRENT_SOURCE_DIR}/tools/tavroctl_test.py
            $<TARGET_FILE:tavroctl> $<TARGET_FILE:tavro-switchsim> ${CMAKE_CROSSCOMPILING_EMULATOR})
  set_tests_properties(TavroctlAgainstSimulator PROPERTIES
    LABELS e2e TIMEOUT 600 RESOURCE_LOCK tavro_service_ports
    ENVIRONMENT "TAVRO_TARGET_BYTE_ORDER=${CMAKE_CXX_BYTE_ORDER}")
endif()

# The dissector test runs tshark, a host program: native builds only, and
# only where tshark is installed (tools/setup.sh installs it).
if(TARGET WiresharkDissectorE2eTest AND NOT CMAKE_CROSSCOMPILING)
  find_program(TAVRO_TSHARK tshark)
  if(TAVRO_TSHARK)
    target_compile_definitions(WiresharkDissectorE2eTest PRIVATE
      TAVRO_TSHARK="${TAVRO_TSHARK}" TAVRO_WIRESHARK_DIR="${PROJECT_BINARY_DIR}/wireshark")
    add_dependencies(WiresharkDissectorE2eTest tavro_wireshark)
  endif()
endif()

# Tests of the fault soak's parts.
file(GLOB_RECURSE TAVRO_SOAK_TESTS CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/tools/Soak*Test.cpp)
foreach(src IN LISTS TAVRO_SOAK_TESTS)
  get_filename_component(name ${src} NAME_WE)
  target_link_libraries(${name} PRIVATE tavro_soak)
endforeach()

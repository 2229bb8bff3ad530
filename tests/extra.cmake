# Extra link dependencies of particular test executables; included by
# tests/CMakeLists.txt after every test target exists. Append as needed.

# Tests of the switch simulator, and any test that runs it in-process.
file(GLOB_RECURSE TAVRO_SWITCHSIM_TESTS CONFIGURE_DEPENDS
  ${CMAKE_CURRENT_SOURCE_DIR}/tools/SwitchSimulator*Test.cpp)
foreach(src IN LISTS TAVRO_SWITCHSIM_TESTS)
  get_filename_component(name ${src} NAME_WE)
  target_link_libraries(${name} PRIVATE tavro_switchsim)
endforeach()

# The library is compiled once into objects; libTAVRO.so exports only what is
# marked TAVRO_EXPORT, while tests link the same objects statically so they can
# reach internals.
include(GNUInstallDirs)
file(GLOB_RECURSE TAVRO_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/*.cpp)

# Applications see the code enumerations through a header generated from the
# library's own definitions, so the two cannot drift apart.
set(TAVRO_GENERATED_INCLUDE_DIR ${PROJECT_BINARY_DIR}/include)
set(TAVRO_CODES_HEADER ${TAVRO_GENERATED_INCLUDE_DIR}/TAVRO/TAVROCodes.h)
# The same codes as a plain table (TYPE, NAME, value), for the tools and
# bindings that name them.
set(TAVRO_CODES_TABLE ${PROJECT_BINARY_DIR}/codes/tavro-codes.tsv)
add_custom_command(OUTPUT ${TAVRO_CODES_HEADER} ${TAVRO_CODES_TABLE}
  COMMAND ${CMAKE_COMMAND} -DSOURCE=${PROJECT_SOURCE_DIR}/src/Ap/ApBase.h -DOUTPUT=${TAVRO_CODES_HEADER}
          -DTABLE=${TAVRO_CODES_TABLE} -P ${PROJECT_SOURCE_DIR}/cmake/GenerateTavroCodes.cmake
  DEPENDS ${PROJECT_SOURCE_DIR}/src/Ap/ApBase.h ${PROJECT_SOURCE_DIR}/cmake/GenerateTavroCodes.cmake
  COMMENT "Generating the public code header"
  VERBATIM)
set(TAVRO_VERSION_HEADER ${TAVRO_GENERATED_INCLUDE_DIR}/TAVRO/TAVROVersion.h)
configure_file(${PROJECT_SOURCE_DIR}/include/TAVRO/TAVROVersion.h.in ${TAVRO_VERSION_HEADER} @ONLY)
# The one export macro, shared with the library's own headers.
set(TAVRO_EXPORT_HEADER ${TAVRO_GENERATED_INCLUDE_DIR}/TAVRO/TavroExport.h)
configure_file(${PROJECT_SOURCE_DIR}/src/TavroExport.h ${TAVRO_EXPORT_HEADER} COPYONLY)
add_custom_target(tavro_public_headers DEPENDS ${TAVRO_CODES_HEADER} ${TAVRO_CODES_TABLE})

add_library(tavro_objects OBJECT ${TAVRO_SOURCES})
set_target_properties(tavro_objects PROPERTIES
  POSITION_INDEPENDENT_CODE ON
  CXX_VISIBILITY_PRESET hidden
  VISIBILITY_INLINES_HIDDEN ON)
target_include_directories(tavro_objects PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src>
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<BUILD_INTERFACE:${TAVRO_GENERATED_INCLUDE_DIR}>
  ${TINYXML_INCLUDE_DIR})
target_compile_definitions(tavro_objects PRIVATE TAVRO_BUILDING_LIBRARY)
# 64-bit atomics need libatomic on 32-bit targets.
target_link_libraries(tavro_objects PUBLIC Threads::Threads Boost::regex ${TINYXML_LIBRARY} rt atomic)
add_dependencies(tavro_objects tavro_public_headers)

add_library(TAVRO SHARED $<TARGET_OBJECTS:tavro_objects>)
target_link_libraries(TAVRO PRIVATE Threads::Threads Boost::regex ${TINYXML_LIBRARY} rt atomic)
# Template instantiations of the standard library carry default visibility;
# the version script keeps them, and anything else unmarked, out of the table.
target_link_options(TAVRO PRIVATE
  -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/libTAVRO.map -Wl,--no-undefined
  -Wl,--exclude-libs,ALL)
set_target_properties(TAVRO PROPERTIES
  LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/libTAVRO.map
  VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
target_include_directories(TAVRO INTERFACE
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<BUILD_INTERFACE:${TAVRO_GENERATED_INCLUDE_DIR}>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
add_library(TAVRO::TAVRO ALIAS TAVRO)

add_library(tavro_static STATIC $<TARGET_OBJECTS:tavro_objects>)
target_link_libraries(tavro_static PUBLIC tavro_objects)

# Installation: the shared library, the public headers and a package
# configuration, so that an application only needs find_package(TAVRO).
include(CMakePackageConfigHelpers)
set(TAVRO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/TAVRO)
install(TARGETS TAVRO EXPORT TAVROTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/TAVRO DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
install(FILES ${TAVRO_CODES_HEADER} ${TAVRO_VERSION_HEADER} ${TAVRO_EXPORT_HEADER} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/TAVRO)
# The API's manual page (man 3 libTAVRO).
install(FILES ${PROJECT_SOURCE_DIR}/docs/libTAVRO.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3)
install(EXPORT TAVROTargets NAMESPACE TAVRO:: DESTINATION ${TAVRO_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/TAVROConfig.cmake.in
  ${PROJECT_BINARY_DIR}/TAVROConfig.cmake INSTALL_DESTINATION ${TAVRO_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TAVROConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TAVROConfig.cmake ${PROJECT_BINARY_DIR}/TAVROConfigVersion.cmake
  DESTINATION ${TAVRO_CMAKE_DIR})

# pkg-config, for builds that do not use CMake (C programs, bindings).
file(RELATIVE_PATH TAVRO_PC_PREFIX_REL "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
configure_file(${PROJECT_SOURCE_DIR}/cmake/TAVRO.pc.in ${PROJECT_BINARY_DIR}/TAVRO.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/TAVRO.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

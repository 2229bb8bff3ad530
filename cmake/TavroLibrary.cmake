# The library is compiled once into objects; libTAVRO.so exports only what is
# marked TAVRO_EXPORT, while tests link the same objects statically so they can
# reach internals.
file(GLOB_RECURSE TAVRO_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/*.cpp)

add_library(tavro_objects OBJECT ${TAVRO_SOURCES})
set_target_properties(tavro_objects PROPERTIES
  POSITION_INDEPENDENT_CODE ON
  CXX_VISIBILITY_PRESET hidden
  VISIBILITY_INLINES_HIDDEN ON)
target_include_directories(tavro_objects PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src> ${TINYXML_INCLUDE_DIR})
target_compile_definitions(tavro_objects PRIVATE TAVRO_BUILDING_LIBRARY)
# 64-bit atomics need libatomic on 32-bit targets.
target_link_libraries(tavro_objects PUBLIC Threads::Threads Boost::regex ${TINYXML_LIBRARY} rt atomic)

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

add_library(tavro_static STATIC $<TARGET_OBJECTS:tavro_objects>)
target_link_libraries(tavro_static PUBLIC tavro_objects)

# Puts the folders together: libkl.so and libkl_nonshared.a for users, one archive of the same objects for the tests of
# internals, and what is installed.

function(kl_objects_of property result)
  get_property(components GLOBAL PROPERTY ${property})
  list(TRANSFORM components REPLACE "(.+)" "$<TARGET_OBJECTS:\\1>")
  set(${result} ${components} PARENT_SCOPE)
endfunction()
kl_objects_of(KL_COMPONENTS kl_objects)
kl_objects_of(KL_COMPONENTS_APART kl_objects_apart)

add_library(kl_nonshared STATIC ${kl_objects_apart})
set_target_properties(kl_nonshared PROPERTIES EXPORT_NAME nonshared)
add_library(kl SHARED ${kl_objects})
add_library(kl::kl ALIAS kl)
set_target_properties(kl PROPERTIES
  VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
  LINK_DEPENDS "${PROJECT_SOURCE_DIR}/cmake/exports.map")
target_compile_features(kl PUBLIC cxx_std_20)
target_link_libraries(kl PRIVATE $<BUILD_INTERFACE:kl_build_flags> INTERFACE kl_nonshared)
target_link_options(kl PRIVATE
  "LINKER:--version-script=${PROJECT_SOURCE_DIR}/cmake/exports.map"
  LINKER:--as-needed LINKER:-O1 LINKER:--gc-sections LINKER:-z,relro,-z,now)
target_include_directories(kl PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

set(kl_all_objects ${kl_objects} ${kl_objects_apart})
list(REMOVE_DUPLICATES kl_all_objects)
add_library(kl_internal STATIC EXCLUDE_FROM_ALL ${kl_all_objects})
target_link_libraries(kl_internal PUBLIC kl_build_flags)
target_compile_options(kl_internal INTERFACE ${kl_coverage_flags})
target_include_directories(kl_internal PUBLIC
  "${PROJECT_SOURCE_DIR}/include" "${PROJECT_SOURCE_DIR}/lib" "${PROJECT_SOURCE_DIR}"
  "${PROJECT_BINARY_DIR}/generated")

include(CMakePackageConfigHelpers)
install(TARGETS kl kl_nonshared EXPORT klTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/kl" DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h"
  PATTERN "test.h" EXCLUDE)  # that of the test kit, testkit/
install(EXPORT klTargets NAMESPACE kl:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kl)
configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/klConfig.cmake.in" "${PROJECT_BINARY_DIR}/klConfig.cmake"
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kl)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/klConfigVersion.cmake" COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/klConfig.cmake" "${PROJECT_BINARY_DIR}/klConfigVersion.cmake"
  "${PROJECT_SOURCE_DIR}/cmake/KlDescribe.cmake"
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kl)
file(RELATIVE_PATH kl_prefix_from_pc "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
configure_file("${PROJECT_SOURCE_DIR}/cmake/kl.pc.in" "${PROJECT_BINARY_DIR}/kl.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/kl.pc" DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

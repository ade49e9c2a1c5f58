# Read by cpack once for each generator: which components it packs, and below which prefix.
list(GET CPACK_INSTALL_CMAKE_PROJECTS 0 kova_build)
set(kova_components Unspecified archive)
if(CPACK_GENERATOR STREQUAL "DEB")
  set(kova_components Unspecified debian)
  set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
else()
  # An archive has its top folder, and below it bin/ and share/.
  set(CPACK_PACKAGING_INSTALL_PREFIX /)
endif()
set(CPACK_INSTALL_CMAKE_PROJECTS "")
foreach(kova_component IN LISTS kova_components)
  list(APPEND CPACK_INSTALL_CMAKE_PROJECTS ${kova_build} kova-mcp ${kova_component} /)
endforeach()

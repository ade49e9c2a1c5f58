# The resources of a Windows executable, filled in with the project's version.

# kova_windows_resources(TARGET FOLDER): compiles FOLDER/TARGET.rc.in, which may name the file made
# from FOLDER/TARGET.manifest.in, into the executable TARGET.
function(kova_windows_resources target folder)
  set(KOVA_VERSION_LABEL "${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}-m${PROJECT_VERSION_PATCH}")
  foreach(file ${target}.rc ${target}.manifest)
    configure_file(${folder}/${file}.in ${CMAKE_CURRENT_BINARY_DIR}/${file} @ONLY)
  endforeach()
  target_sources(${target} PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/${target}.rc)
  set_source_files_properties(${CMAKE_CURRENT_BINARY_DIR}/${target}.rc PROPERTIES
    OBJECT_DEPENDS ${CMAKE_CURRENT_BINARY_DIR}/${target}.manifest
    COMPILE_OPTIONS "-I${CMAKE_CURRENT_BINARY_DIR}")
endfunction()

# The resources of a Windows program, filled in with the project's version.

# kova_windows_resources(TARGET RC): compiles the template RC into TARGET. It may name the manifest
# "TARGET.manifest", which is made from the one that all programs share.
function(kova_windows_resources target rc)
  set(KOVA_PROGRAM ${target})
  set(made ${CMAKE_CURRENT_BINARY_DIR}/${target})
  configure_file(${CMAKE_CURRENT_SOURCE_DIR}/${rc} ${made}.rc @ONLY)
  configure_file(${PROJECT_SOURCE_DIR}/src/platform/win32/program.manifest.in ${made}.manifest
    @ONLY)
  target_sources(${target} PRIVATE ${made}.rc)
  set_source_files_properties(${made}.rc PROPERTIES
    OBJECT_DEPENDS ${made}.manifest COMPILE_OPTIONS "-I${CMAKE_CURRENT_BINARY_DIR}")
endfunction()

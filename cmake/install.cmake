# What is shipped: the server, the operator's tool, the documents and the files for operators.
#
# On Linux by the usual folders (bin/, share/doc/kova-mcp/). On Windows into one folder: the program
# at its top, so that the client library can lie beside it, and docs/ and deploy/ below. The links
# between the documents hold in both.
if(WIN32)
  set(KOVA_INSTALL_PROGRAMS .)
  set(KOVA_INSTALL_DOCUMENTS .)
else()
  include(GNUInstallDirs)
  set(KOVA_INSTALL_PROGRAMS ${CMAKE_INSTALL_BINDIR})
  set(KOVA_INSTALL_DOCUMENTS ${CMAKE_INSTALL_DOCDIR})
endif()

install(TARGETS kova-mcp RUNTIME DESTINATION ${KOVA_INSTALL_PROGRAMS})
if(KOVA_ADMIN)
  install(TARGETS kova-admin RUNTIME DESTINATION ${KOVA_INSTALL_PROGRAMS})
endif()
install(FILES README.md CHANGELOG.md DESTINATION ${KOVA_INSTALL_DOCUMENTS})
# The sources of the manual pages are no documents.
install(DIRECTORY docs deploy DESTINATION ${KOVA_INSTALL_DOCUMENTS}
  PATTERN "*.sh" EXCLUDE PATTERN man EXCLUDE)
install(DIRECTORY deploy DESTINATION ${KOVA_INSTALL_DOCUMENTS}
  FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ
    WORLD_EXECUTE
  FILES_MATCHING PATTERN "*.sh")
# OPTIONAL: a notice that the tree does not have is no error.
install(FILES LICENSE SECURITY.md THIRD-PARTY-NOTICES DESTINATION ${KOVA_INSTALL_DOCUMENTS} OPTIONAL)

# Completion: for bash and zsh where they look for it, for PowerShell where a profile loads it from.
install(FILES completions/kova-mcp.ps1 completions/kova-admin.ps1
  DESTINATION ${KOVA_INSTALL_DOCUMENTS}/completions)
if(NOT WIN32)
  foreach(program kova-mcp kova-admin)
    install(FILES completions/${program}.bash
      DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME ${program})
  endforeach()
  # Below /usr/local zsh looks here. The Debian package has a folder of its own.
  install(FILES completions/_kova-mcp completions/_kova-admin
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions COMPONENT archive)
endif()

if(KOVA_PACKAGES)
  include(cmake/packages.cmake)
endif()

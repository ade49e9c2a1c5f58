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
install(DIRECTORY docs deploy DESTINATION ${KOVA_INSTALL_DOCUMENTS} PATTERN "*.sh" EXCLUDE)
install(DIRECTORY deploy DESTINATION ${KOVA_INSTALL_DOCUMENTS}
  USE_SOURCE_PERMISSIONS FILES_MATCHING PATTERN "*.sh")
# OPTIONAL: a notice that the tree does not have is no error.
install(FILES LICENSE SECURITY.md THIRD-PARTY-NOTICES DESTINATION ${KOVA_INSTALL_DOCUMENTS} OPTIONAL)

# cmake --install: the daemon, abctl in its bundle, the client library with its headers, units and documents.
include(GNUInstallDirs)

install(TARGETS abd RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# abctl's entitlements are those of the bundle around it; people type the link.
set(ABCTL_BUNDLE ${CMAKE_INSTALL_LIBDIR}/ambrel/abctl.app)
install(TARGETS abctl RUNTIME DESTINATION ${ABCTL_BUNDLE})
install(FILES packaging/abctl.app/Info.plist packaging/abctl.app/Entitlements.plist DESTINATION ${ABCTL_BUNDLE}
  PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
file(RELATIVE_PATH ABCTL_LINK /${CMAKE_INSTALL_BINDIR} /${ABCTL_BUNDLE}/abctl)
install(CODE "
  set(links \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
  file(MAKE_DIRECTORY \"\${links}\")
  file(CREATE_LINK \"${ABCTL_LINK}\" \"\${links}/abctl\" SYMBOLIC)
  message(STATUS \"Installing: \${links}/abctl -> ${ABCTL_LINK}\")")

install(TARGETS ambrel ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
set(AMBREL_HEADERS ${CMAKE_INSTALL_INCLUDEDIR}/ambrel-1)
install(DIRECTORY Ambrel DESTINATION ${AMBREL_HEADERS} FILES_MATCHING PATTERN "*.h")
install(DIRECTORY platform DESTINATION ${AMBREL_HEADERS} FILES_MATCHING PATTERN "*.h" PATTERN "*.inl"
  PATTERN hollin EXCLUDE)
# The prefix in the files below is the one of the installation, which may differ from the configured one.
file(RELATIVE_PATH AMBREL_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(packaging/ambrel.pc.in ambrel.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/ambrel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(CODE "
  set(BINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
  set(DOCDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DOCDIR}\")
  configure_file(\"${CMAKE_SOURCE_DIR}/packaging/abd.service.in\" \"${CMAKE_BINARY_DIR}/abd.service\" @ONLY)")
install(FILES ${CMAKE_BINARY_DIR}/abd.service packaging/abd.socket DESTINATION lib/systemd/user)
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR} FILES_MATCHING PATTERN "*.md")

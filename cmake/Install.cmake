# cmake --install: the daemon, abctl in its bundle, the client library with its headers, units and documents.
# The components Library, Development and Examples (which has to be asked for) are packages of their own;
# what names none belongs to the daemon's.
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

# The client library: what clients include, what that includes in turn, and no other header.
set(headers Ambrel/ABBundle.h Ambrel/ABDaemonClient.h Ambrel/ABDiscovery.h Ambrel/ABErrors.h Ambrel/ABHost.h
  Ambrel/ABInfoKeys.h Ambrel/ABPlugInCore.h Ambrel/ABProtocol.h platform/launcher/ProcessAssertions.h platform/launcher/ServiceLauncher.h platform/log/Log.h
  platform/security/Sandbox.h platform/system/Notifications.h platform/value/Value.h)
set(AMBREL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/ambrel-${PROJECT_VERSION_MAJOR})
set(public_headers)
while(headers)
  list(POP_FRONT headers header)
  if(header IN_LIST public_headers)
    continue()
  endif()
  list(APPEND public_headers ${header})
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${header})
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${header} DESTINATION ${AMBREL_INCLUDEDIR}/${folder} COMPONENT Development)
  file(STRINGS ${header} includes REGEX "^#include \"")
  list(TRANSFORM includes REPLACE "^#include \"(.*)\".*" "\\1")
  list(APPEND headers ${includes})
endwhile()

# For CMake: find_package(ambrel) gives ambrel::shared and, where what it links is installed, ambrel::static.
set(AMBREL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/ambrel)
foreach(kind shared static)
  set(target ambrel)
  if(kind STREQUAL shared)
    set(target ambrel_shared)
  endif()
  set_target_properties(${target} PROPERTIES EXPORT_NAME ${kind})
  install(TARGETS ${target} EXPORT ambrel_${kind}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Library NAMELINK_COMPONENT Development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development INCLUDES DESTINATION ${AMBREL_INCLUDEDIR})
  install(EXPORT ambrel_${kind} NAMESPACE ambrel:: FILE ${kind}.cmake DESTINATION ${AMBREL_CMAKEDIR}
    COMPONENT Development)
endforeach()
include(CMakePackageConfigHelpers)
write_basic_package_version_file(ambrelConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES packaging/ambrelConfig.cmake ${CMAKE_BINARY_DIR}/ambrelConfigVersion.cmake
  DESTINATION ${AMBREL_CMAKEDIR} COMPONENT Development)

# The prefix in the files below is the one of the installation, which may differ from the configured one.
file(RELATIVE_PATH AMBREL_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(packaging/ambrel.pc.in ambrel.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/ambrel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)

install(CODE "
  set(BINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
  set(DOCDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DOCDIR}\")
  configure_file(\"${CMAKE_SOURCE_DIR}/packaging/abd.service.in\" \"${CMAKE_BINARY_DIR}/abd.service\" @ONLY)")
install(FILES ${CMAKE_BINARY_DIR}/abd.service packaging/abd.socket DESTINATION lib/systemd/user)
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR} FILES_MATCHING PATTERN "*.md")

# Completions, where the shells look: zsh in its own directory beside the system's packages, elsewhere in the site's.
install(FILES packaging/completions/abctl DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
set(ZSH_COMPLETIONS site-functions)
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(ZSH_COMPLETIONS vendor-completions)
endif()
install(FILES packaging/completions/_abctl DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/${ZSH_COMPLETIONS})

set(EXAMPLES ${CMAKE_INSTALL_LIBDIR}/ambrel/examples)
install(DIRECTORY examples/ DESTINATION ${EXAMPLES} USE_SOURCE_PERMISSIONS COMPONENT Examples EXCLUDE_FROM_ALL
  PATTERN CMakeLists.txt EXCLUDE)
install(TARGETS share-desk share-card DESTINATION ${EXAMPLES} COMPONENT Examples EXCLUDE_FROM_ALL)

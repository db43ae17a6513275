# The manual pages, made of docs/ where lowdown(1) and Python are there.
find_program(LOWDOWN lowdown)
find_package(Python3 COMPONENTS Interpreter)
if(NOT LOWDOWN OR NOT Python3_FOUND)
  message(STATUS "No manual pages: they need lowdown and python3")
  return()
endif()
foreach(manual "abd.8 operating" "abctl.1 abctl" "libambrel.3 client" "abd-protocol.7 protocol"
    "abd-bundles.5 bundles")
  string(REPLACE " " ";" manual ${manual})
  list(GET manual 0 page)
  list(GET manual 1 document)
  set(files packaging/manuals/${page}.md docs/${document}.md)
  list(TRANSFORM files PREPEND ${CMAKE_SOURCE_DIR}/)
  set(program)
  set(help)
  if(page STREQUAL abctl.1)
    set(program abctl)
    set(help $<TARGET_FILE:abctl>)
  endif()
  add_custom_command(OUTPUT manuals/${page}
    COMMAND ${Python3_EXECUTABLE} ${CMAKE_SOURCE_DIR}/packaging/manuals/make.py manuals/${page} ${files}
      ${PROJECT_VERSION} ${ABD_RELEASE_DATE} ${help}
    DEPENDS packaging/manuals/make.py ${files} ${program} VERBATIM)
  list(APPEND pages ${CMAKE_BINARY_DIR}/manuals/${page})
  string(REGEX REPLACE ".*\\." "" section ${page})
  set(component Unspecified)
  if(section EQUAL 3)
    set(component Development)  # with the headers that it is about
  endif()
  install(FILES ${CMAKE_BINARY_DIR}/manuals/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section}
    COMPONENT ${component})
endforeach()
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/manuals)
add_custom_target(manuals ALL DEPENDS ${pages})

find_program(MAN man)
find_program(MANDOC mandoc)
if(ABD_TESTS AND MAN AND MANDOC)
  add_test(NAME Manuals.AreFreeOfWarningsAndSayTheirNames COMMAND sh ${CMAKE_SOURCE_DIR}/packaging/manuals/check ${pages})
endif()

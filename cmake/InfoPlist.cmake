# klarbox_info_plist(TARGET IDENTIFIER NAME): embeds the information property list into the
# executable, as the section in which code signing and the program itself look for it.
function(klarbox_info_plist target identifier name)
  set(EXECUTABLE ${target})
  set(IDENTIFIER ${identifier})
  set(NAME ${name})
  set(plist ${CMAKE_CURRENT_BINARY_DIR}/${target}-Info.plist)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/Info.plist.in ${plist} @ONLY)
  set(source ${CMAKE_CURRENT_BINARY_DIR}/${target}-InfoPlist.cpp)
  # "R": the linker drops sections that nothing refers to, and must keep this one.
  file(CONFIGURE OUTPUT ${source} @ONLY CONTENT [[
__asm__(".pushsection __info_plist, \"aR\"\n"
        ".incbin \"@plist@\"\n"
        ".popsection\n");
]])
  set_source_files_properties(${source} PROPERTIES OBJECT_DEPENDS ${plist})
  target_sources(${target} PRIVATE ${source})
endfunction()

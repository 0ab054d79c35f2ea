# tavel_man_page(TARGET PAGE SECTION): the manual page PAGE (a path relative
# to the calling directory) installed gzip-compressed, as Debian's policy
# wants, without a time stamp in the gzip header so rebuilds give the same
# file, and built with TARGET: a package build asks for the programs only.
function(tavel_man_page target page section)
  get_filename_component(name "${page}" NAME)
  set(out "${CMAKE_CURRENT_BINARY_DIR}/${name}")
  add_custom_command(OUTPUT "${out}.gz"
                     COMMAND ${CMAKE_COMMAND} -E copy "${CMAKE_CURRENT_SOURCE_DIR}/${page}" "${out}"
                     COMMAND gzip -9nf "${out}"
                     DEPENDS "${page}" VERBATIM)
  add_custom_target(${target}_man DEPENDS "${out}.gz")
  add_dependencies(${target} ${target}_man)
  install(FILES "${out}.gz" DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endfunction()

# Run by CPack on its staging tree, before it packs. The program stays under the .deb's /opt
# prefix; man page, copyright and changelog move to /usr/share, where man and dpkg look, and
# lintian's overrides for an add-on under /opt join them.
if(NOT CPACK_GENERATOR STREQUAL "DEB")
    return()
endif()
set(root ${CPACK_TEMPORARY_INSTALL_DIRECTORY})
file(MAKE_DIRECTORY ${root}/usr)
file(RENAME ${root}${CPACK_PACKAGING_INSTALL_PREFIX}/share ${root}/usr/share)
file(MAKE_DIRECTORY ${root}/usr/share/lintian/overrides)
file(COPY_FILE ${CPACK_ERROR_REPORT_LINTIAN_OVERRIDES}
    ${root}/usr/share/lintian/overrides/${CPACK_PACKAGE_NAME})
# Whatever the builder's umask: directories and programs 0755, other files 0644.
execute_process(COMMAND chmod -R u=rwX,go=rX ${root} COMMAND_ERROR_IS_FATAL ANY)

# CPack runs this after it has built the packages. CPack adds scripts that call ldconfig to the package of
# a shared library. Debian's policy is to activate ldconfig's trigger (the file triggers) and to have no
# scripts, so this removes them.
foreach(package IN LISTS CPACK_PACKAGE_FILES)
    if(package MATCHES "/libstillimage-client1_")
        set(tree "${CPACK_TEMPORARY_DIRECTORY}/repack")
        file(REMOVE_RECURSE "${tree}")
        execute_process(COMMAND dpkg-deb --raw-extract "${package}" "${tree}"
            COMMAND_ERROR_IS_FATAL ANY)
        file(REMOVE "${tree}/DEBIAN/postinst" "${tree}/DEBIAN/postrm")
        execute_process(COMMAND dpkg-deb --root-owner-group --build "${tree}" "${package}"
            OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
        file(REMOVE_RECURSE "${tree}")
    endif()
endforeach()

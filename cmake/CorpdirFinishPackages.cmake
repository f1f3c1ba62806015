# Run by CPack twice: between the installation into its own folder and the packing, and afterwards.
if(CPACK_PACKAGE_FILES)
  foreach(_file IN LISTS CPACK_PACKAGE_FILES)
    execute_process(COMMAND ${CPACK_CORPDIR_SCRIPTS}/repack ${_file} ${CPACK_TEMPORARY_DIRECTORY}/repack
      COMMAND_ERROR_IS_FATAL ANY)
  endforeach()
else()
  foreach(_component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${_component} _name)
    execute_process(
      COMMAND ${CPACK_CORPDIR_SCRIPTS}/finish ${CPACK_TEMPORARY_DIRECTORY}/${_component}
              ${CPACK_DEBIAN_${_name}_PACKAGE_NAME}
              ${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE} ${CPACK_PACKAGE_CONTACT}
      COMMAND_ERROR_IS_FATAL ANY)
  endforeach()
endif()

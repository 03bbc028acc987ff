# Run by cpack behind a package. Its own archives carry the name of who made them and the order of
# the folders on his disk: the TGZ is packed once more with neither.
if(CPACK_GENERATOR STREQUAL "TGZ")
  set(epoch $ENV{SOURCE_DATE_EPOCH})
  if(NOT epoch)
    string(TIMESTAMP epoch %s UTC)
  endif()
  foreach(archive ${CPACK_PACKAGE_FILES})
    execute_process(
      COMMAND tar --create --sort=name --format=ustar --numeric-owner --owner=0 --group=0
        --mtime=@${epoch} --directory ${CPACK_TOPLEVEL_DIRECTORY} ${CPACK_PACKAGE_FILE_NAME}
      COMMAND gzip -9n
      OUTPUT_FILE ${archive}
      COMMAND_ERROR_IS_FATAL ANY)
  endforeach()
endif()

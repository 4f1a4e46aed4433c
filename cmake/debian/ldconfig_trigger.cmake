# Run by cpack after it has written the packages (CPACK_POST_BUILD_SCRIPTS).
# CPack gives every package holding a shared object under /usr/lib postinst
# and postrm scripts that call ldconfig.  dpkg's ldconfig trigger does that
# for the public library without maintainer scripts, and the virtual host's
# private preload library needs no ldconfig at all: such packages are
# repacked without the scripts, the library package with a `triggers` file.
foreach(deb IN LISTS CPACK_PACKAGE_FILES)
  execute_process(COMMAND dpkg-deb --ctrl-tarfile ${deb} COMMAND tar -t OUTPUT_VARIABLE ctrl)
  if(NOT ctrl MATCHES "postinst|postrm")
    continue()
  endif()
  set(tree ${deb}.tree)
  file(REMOVE_RECURSE ${tree})
  execute_process(COMMAND dpkg-deb -R ${deb} ${tree} RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "dpkg-deb -R ${deb} failed")
  endif()
  file(REMOVE ${tree}/DEBIAN/postinst ${tree}/DEBIAN/postrm)
  if(deb MATCHES "/libqmxvlib1_[^/]*\\.deb$")
    file(WRITE ${tree}/DEBIAN/triggers "activate-noawait ldconfig\n")
    file(CHMOD ${tree}/DEBIAN/triggers PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  endif()
  execute_process(COMMAND dpkg-deb --root-owner-group -b ${tree} ${deb}
                  OUTPUT_QUIET RESULT_VARIABLE rc)
  file(REMOVE_RECURSE ${tree})
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "dpkg-deb -b ${deb} failed")
  endif()
endforeach()

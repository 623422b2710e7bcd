# The programs of a cross build in a form that other programs can start.
#
# ctest starts tests with the emulator, but a test, and vexa-unit, start programs as they stand, which
# the system does only where it knows emulators by itself; containers and CI machines mostly do not.
# So there is a second folder of programs, laid out as the first, in which each name is a script:
#
#   emulated/bin/vexa-unit        #!/bin/busybox sh: the emulator with ...
#   emulated/bin/vexa-unit.real   ... the program, beside which it finds the others' scripts
#   emulated/lib, share           links to the real ones
#
# BusyBox because it is linked statically and so, like the emulator, deaf to LD_PRELOAD.

# vexa_emulate(target...): adds these programs to the folder.
function(vexa_emulate)
  set(folder ${CMAKE_BINARY_DIR}/emulated)
  file(MAKE_DIRECTORY ${folder}/bin)
  foreach(link lib share)
    file(CREATE_LINK ${CMAKE_BINARY_DIR}/${link} ${folder}/${link} SYMBOLIC)
  endforeach()
  foreach(program ${ARGN})
    set(script ${folder}/bin/${program})
    file(WRITE ${script}.new
      "#!/bin/busybox sh\nexec ${CMAKE_CROSSCOMPILING_EMULATOR} -0 \"$0\" \"\${0%/*}/${program}.real\" \"$@\"\n")
    file(CHMOD ${script}.new PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
    file(RENAME ${script}.new ${script})
    add_custom_command(OUTPUT ${script}.real
      COMMAND ${CMAKE_COMMAND} -E copy $<TARGET_FILE:${program}> ${script}.real
      DEPENDS ${program})
    list(APPEND files ${script}.real)
  endforeach()
  add_custom_target(emulated_programs ALL DEPENDS ${files})
endfunction()

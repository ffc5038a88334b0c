# vod_rpcgen(NAME XFILE)
#
# Generates, at build time, the XDR filters, the thread-safe (-M) client stubs
# and the server dispatcher (-m, no main) of one protocol file, and makes two
# static libraries of them:
#   NAME_proto  XDR filters + client stubs; links libtirpc; exports the header
#   NAME_svc    the dispatcher; the program that links it supplies the *_svc
#               functions and the freeresult function
# rpcgen writes the input's path into its #include lines, so the .x file is
# copied into the output folder and compiled from there.
set(VOD_GEN_DIR ${CMAKE_BINARY_DIR}/gen)
file(MAKE_DIRECTORY ${VOD_GEN_DIR})

find_program(RPCGEN rpcgen REQUIRED)

function(vod_rpcgen NAME XFILE)
  get_filename_component(xabs ${XFILE} ABSOLUTE)
  set(g ${VOD_GEN_DIR})
  set(outs ${g}/${NAME}.h ${g}/${NAME}_xdr.c ${g}/${NAME}_clnt.c ${g}/${NAME}_svc.c)
  add_custom_command(
    OUTPUT ${outs}
    COMMAND ${CMAKE_COMMAND} -E copy ${xabs} ${g}/${NAME}.x
    COMMAND ${CMAKE_COMMAND} -E remove -f ${outs}
    COMMAND ${RPCGEN} -M -h -o ${NAME}.h ${NAME}.x
    COMMAND ${RPCGEN} -M -c -o ${NAME}_xdr.c ${NAME}.x
    COMMAND ${RPCGEN} -M -l -o ${NAME}_clnt.c ${NAME}.x
    COMMAND ${RPCGEN} -M -m -o ${NAME}_svc.c ${NAME}.x
    WORKING_DIRECTORY ${g}
    DEPENDS ${xabs}
    COMMENT "rpcgen ${NAME}.x"
    VERBATIM)
  # Generated code is not ours to keep warning-clean.
  set_source_files_properties(${g}/${NAME}_xdr.c ${g}/${NAME}_clnt.c ${g}/${NAME}_svc.c
    PROPERTIES COMPILE_OPTIONS "-w")
  add_library(${NAME}_proto STATIC ${g}/${NAME}.h ${g}/${NAME}_xdr.c ${g}/${NAME}_clnt.c)
  target_include_directories(${NAME}_proto PUBLIC ${g})
  target_link_libraries(${NAME}_proto PUBLIC PkgConfig::TIRPC)
  add_library(${NAME}_svc STATIC ${g}/${NAME}_svc.c)
  target_link_libraries(${NAME}_svc PUBLIC ${NAME}_proto)
endfunction()

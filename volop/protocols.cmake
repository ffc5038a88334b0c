# The served program and every remote program vod calls.  Each gives a
# <name>_proto (XDR + client stubs) and a <name>_svc (dispatcher) library.
vod_rpcgen(vo ${CMAKE_CURRENT_LIST_DIR}/vo.x)

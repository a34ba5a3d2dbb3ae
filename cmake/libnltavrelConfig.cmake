# find_package(libnltavrel CONFIG) for an installed libnltavrel: the imported
# targets libnltavrel::nltavrel and libnltavrel::tavrel_host.
include("${CMAKE_CURRENT_LIST_DIR}/libnltavrelTargets.cmake")

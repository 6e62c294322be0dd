# Sets TQREADER_NODE_API_INCLUDE to the folder of node_api.h: given by hand, beside the Node.js installation, or
# from the npm package node-api-headers that ./run unpacks where the installation has none.
if(NOT TQREADER_NODE_API_INCLUDE)
  find_program(TQREADER_NODE NAMES node nodejs)
  set(hints "")
  if(TQREADER_NODE)
    get_filename_component(node_real ${TQREADER_NODE} REALPATH)
    get_filename_component(node_bin ${node_real} DIRECTORY)
    list(APPEND hints ${node_bin}/../include/node)
  endif()
  find_path(TQREADER_NODE_API_INCLUDE node_api.h
    HINTS ${hints} ${CMAKE_SOURCE_DIR}/build/node-api-headers/package/include
    PATHS /usr/include/node /usr/include/nodejs/src /usr/local/include/node)
endif()
if(NOT TQREADER_NODE_API_INCLUDE)
  message(FATAL_ERROR "node_api.h not found: install Node.js with its headers, or set TQREADER_NODE_API_INCLUDE")
endif()

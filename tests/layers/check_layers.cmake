# Keeps the folders of src/ in layers: a file may include headers of its own
# folder and of folders in lower layers only, so the folder graph has no
# cycle. Run by CTest as
#   cmake -DSOURCE_DIR=<src> -P check_layers.cmake
# Every folder of src/ must be placed in a layer; a new folder fails the check
# until it is.
#
# Lowest first; folders in one layer ("a|b") are independent of each other.
set(PC_LAYERS
  "platform"        # values, dates, zones, registries, host interfaces
  "async"           # logging, condition reports, operations, diagnostics
  "engine"          # the sync engine's interfaces and the in-memory engine
  "calcore|util"    # calendar core; record and string utilities
  "conduit"         # phone, settings, client state, engine record formatter
  "formatting"      # entity and field formatters, formatting methods
  "transformers"    # data-class helpers, event and contact transformers
  "host")           # reference host, simulated phone, whole runs

if(NOT SOURCE_DIR)
  message(FATAL_ERROR "check_layers: SOURCE_DIR is not set")
endif()

set(rank 0)
foreach(layer IN LISTS PC_LAYERS)
  string(REPLACE "|" ";" layer_folders "${layer}")
  foreach(folder IN LISTS layer_folders)
    set(rank_${folder} ${rank})
  endforeach()
  math(EXPR rank "${rank} + 1")
endforeach()

set(violations "")
file(GLOB folders LIST_DIRECTORIES true RELATIVE ${SOURCE_DIR} ${SOURCE_DIR}/*)
foreach(folder IN LISTS folders)
  if(NOT IS_DIRECTORY ${SOURCE_DIR}/${folder})
    continue()
  endif()
  if(NOT DEFINED rank_${folder})
    string(APPEND violations "  src/${folder}/ is in no layer\n")
    continue()
  endif()
  file(GLOB_RECURSE files RELATIVE ${SOURCE_DIR} ${SOURCE_DIR}/${folder}/*.h ${SOURCE_DIR}/${folder}/*.cc)
  foreach(file IN LISTS files)
    file(STRINGS ${SOURCE_DIR}/${file} includes REGEX "^[ \t]*#[ \t]*include[ \t]*\"[^\"/]+/")
    foreach(line IN LISTS includes)
      string(REGEX REPLACE "^[^\"]*\"([^\"/]+)/.*$" "\\1" target "${line}")
      if(target STREQUAL folder OR NOT IS_DIRECTORY ${SOURCE_DIR}/${target})
        continue()
      endif()
      if(NOT DEFINED rank_${target})
        continue()  # reported above as a folder in no layer
      endif()
      if(NOT rank_${target} LESS rank_${folder})
        string(STRIP "${line}" line)
        string(APPEND violations "  src/${file}: ${line} (${folder} may not include ${target})\n")
      endif()
    endforeach()
  endforeach()
endforeach()

if(violations)
  message(FATAL_ERROR "include lines against the layer order "
                      "platform < async < engine < calcore, util < conduit < formatting "
                      "< transformers < host:\n${violations}")
endif()

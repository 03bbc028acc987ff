# tavrel_embed_entry_script(OUTPUT SOURCE NAME): compiles the Python file SOURCE with the tree's own
# interpreter under the file name NAME and writes the marshalled code object into the C++ file OUTPUT
# as `entryScript` and `entryScriptLength` (MAIN/src/Embedded.h).
function(tavrel_embed_entry_script output source name)
  set(generator ${CMAKE_SOURCE_DIR}/cmake/embedEntryScript.py)
  add_custom_command(OUTPUT ${output}
    COMMAND ${TAVREL_PYTHON37_HOME}/bin/python3.7 -I -S ${generator} ${source} ${name} ${output}
    DEPENDS ${source} ${generator}
    COMMENT "Embedding ${name}"
    VERBATIM)
endfunction()

# generate_api_types(TARGET folder/schema): adds the C++ made from <folder>/<schema>.yaml to TARGET. Its header
# is included as "<folder>/<schema>.h".
function(generate_api_types target schema)
  set(generator ${PROJECT_SOURCE_DIR}/runtime/ordane/generate.py)
  file(GLOB modules CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/runtime/ordane/generator/*.py)
  set(input ${PROJECT_SOURCE_DIR}/${schema}.yaml)
  set(root ${PROJECT_BINARY_DIR}/generated)
  get_filename_component(folder ${root}/${schema} DIRECTORY)
  file(MAKE_DIRECTORY ${folder})
  add_custom_command(
    OUTPUT ${root}/${schema}.h ${root}/${schema}.cpp
    COMMAND ${KELV_PYTHON} ${generator} header ${input} ${root}/${schema}.h
    COMMAND ${KELV_PYTHON} ${generator} source ${input} ${root}/${schema}.cpp ${schema}.h
    DEPENDS ${generator} ${modules} ${input}
    COMMENT "Generating ${schema}.h"
    VERBATIM)
  target_sources(${target} PRIVATE ${root}/${schema}.cpp ${root}/${schema}.h)
  target_include_directories(${target} PUBLIC ${root})
  # Users of the header wait for it.
  string(MAKE_C_IDENTIFIER ${schema} name)
  add_custom_target(${target}_${name} DEPENDS ${root}/${schema}.h)
  add_dependencies(${target} ${target}_${name})
endfunction()

# The operators once per level, each time in a library of its own, and the module that loads one of them.

list(GET ORRERY_LEVELS 0 lowest)
Python_add_library(orrery_ops MODULE WITH_SOABI host/levels/orrery_ops.cpp)
target_include_directories(orrery_ops PRIVATE .)
target_compile_definitions(orrery_ops PRIVATE "ORRERY_LOWEST_LEVEL=\"${lowest}\"")
target_link_libraries(orrery_ops PRIVATE ${CMAKE_DL_LIBS})
orrery_export_entry_point(orrery_ops)

foreach(level IN LISTS ORRERY_LEVELS)
  set(objects orrery_operators)
  if(NOT level STREQUAL lowest)
    set(objects orrery_operators-${level})
    orrery_operator_objects(${objects} ${ORRERY_FLAGS_${level}})
  endif()
  set(target orrery_ops-${level})
  Python_add_library(${target} MODULE ${module_sources})
  set_target_properties(
    ${target}
    PROPERTIES LIBRARY_OUTPUT_DIRECTORY "${ORRERY_TREE}/orrery_host/levels"
               BUILD_RPATH "$ORIGIN/..;${ORRERY_TORCH_DIR}/lib"
               INSTALL_RPATH "$ORIGIN/..;$ORIGIN/../../torch/lib")
  target_compile_definitions(${target} PRIVATE TORCH_EXTENSION_NAME=orrery_ops)
  target_link_libraries(${target} PRIVATE ${objects})
  target_link_options(${target} PRIVATE ${ORRERY_LINK_FLAGS_${level}})
  orrery_export_entry_point(${target})
  add_dependencies(orrery_ops ${target})
  install(TARGETS ${target} LIBRARY DESTINATION orrery_host/levels)
endforeach()

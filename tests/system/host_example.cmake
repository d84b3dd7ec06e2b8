# The example of docs/host-guide.md, built and run as another agent would: it is not linked with anything of ours.
add_executable(system_host_example ${PROJECT_SOURCE_DIR}/docs/host-example.c)
target_link_libraries(system_host_example PRIVATE fmon_flags Threads::Threads ${CMAKE_DL_LIBS})
set_target_properties(system_host_example PROPERTIES ENABLE_EXPORTS ON C_VISIBILITY_PRESET default C_STANDARD 11
    C_STANDARD_REQUIRED ON C_EXTENSIONS OFF)
add_dependencies(system_host_example fmon)
add_test(NAME system.host_example COMMAND sh -c [[out=$("$0" "$1") && echo "$out" && echo "$out" | grep -qE "^create.* /.*/file "]]
    $<TARGET_FILE:system_host_example> $<TARGET_FILE:fmon>)
set_tests_properties(system.host_example PROPERTIES TIMEOUT 60 LABELS system)

# What the guide says against what is: its listing is the example, and it names all that libfmon.so asks of an agent.
add_test(NAME system.host_guide COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/host_guide.sh ${PROJECT_SOURCE_DIR}
    $<TARGET_FILE:fmon>)
# The tests that the page on security names exist.
add_test(NAME system.security_doc COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/security_doc.sh ${PROJECT_SOURCE_DIR})
# What leaves the host's libraries against their headers and export lists.
add_test(NAME system.host_exports COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/host_exports.sh ${PROJECT_SOURCE_DIR}
    $<TARGET_FILE:orx_base> $<TARGET_FILE:hulbase>)
set_tests_properties(system.host_guide system.host_exports system.security_doc PROPERTIES TIMEOUT 60 LABELS system)

# A program linked with liborx_base.so has what plug-ins import, libcjson's function among it.
add_executable(system_host_scope ${CMAKE_CURRENT_LIST_DIR}/host_scope.c)
target_link_libraries(system_host_scope PRIVATE fmon_flags orx_base ${CMAKE_DL_LIBS})
add_test(NAME system.host_scope COMMAND system_host_scope cJSON_AddItemToObject cJSON_CreateString2 cJSON_CreateNumber2
    error_output error_output_level watch_map th_mutex_init cl_event_loop autolog_init)
set_tests_properties(system.host_scope PROPERTIES TIMEOUT 60 LABELS system)

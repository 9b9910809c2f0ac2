target_link_libraries(test_${name} PRIVATE ds_ctl)
target_compile_definitions(test_${name} PRIVATE DS_CTL="$<TARGET_FILE:device-service-ctl>")
add_dependencies(test_${name} device-service-ctl)

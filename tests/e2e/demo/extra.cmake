add_dependencies(test_${name} device-service device-service-standin device-service-plant
                 device-service-ctl device-service-bridge)
# The plant takes port 102 (as root) and the fixed plant ports.
set(DS_TEST_PROPERTIES RESOURCE_LOCK s7_port_102)

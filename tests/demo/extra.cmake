add_dependencies(test_${name} device-service device-service-standin device-service-plant
                 device-service-ctl)

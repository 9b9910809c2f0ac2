// The daemon as the tests run it: the service's own code, with the pid file
// and the serial port paths given on the command line.
#include <cstring>

#include "service/service.h"
#include "support/test_driver.h"

int main(int argc, char **argv)
{
    use_plain_malloc(argv);
    service_paths paths;
    bool test_driver = false;
    for (int i = 1; i < argc; ++i) {
        auto value = [&](std::string &target) {
            if (i + 1 < argc)
                target = argv[++i];
        };
        if (strcmp(argv[i], "--pid-file") == 0)
            value(paths.pid_file);
        else if (strcmp(argv[i], "--tty1") == 0)
            value(paths.serial_port_1);
        else if (strcmp(argv[i], "--tty2") == 0)
            value(paths.serial_port_2);
        else if (strcmp(argv[i], "--test-driver") == 0)
            test_driver = true;
    }
    return service_main(paths, test_driver ? register_test_driver : nullptr);
}

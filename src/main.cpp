// device-service: reads PLCs for the gateway and publishes their values on
// the session bus. Configuration comes only over the bus and from the
// database; the command line is ignored.
#include "service/service.h"

int main(int /*argc*/, char **argv)
{
    use_plain_malloc(argv);
    return service_main(service_paths{});
}

#include "database/restore.h"

int init_database()
{
    return 0;
}

// Rebuilding the device and node lists from the configuration database.
#pragma once

int init_database();

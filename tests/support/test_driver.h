// A driver that exists only in the tests (maker 99, model 999): its node
// addresses script what the read does, so the reading loop can be driven
// without a PLC.
//   "val:TEXT"          read succeeds with TEXT
//   "fail"              read fails
//   "sleep:MS:TEXT"     read takes MS milliseconds, then succeeds with TEXT
//   "count"             read succeeds with a counter that grows per read
// A device whose name begins with "openfail" cannot be opened.
#pragma once

constexpr unsigned TEST_DRIVER_MFG = 99;
constexpr unsigned TEST_DRIVER_TYPE = 999;

void register_test_driver();

# The S7 tests put Snap7's server on port 102; the FX5U and 3E tests beside
# them only wait their turn.
set(DS_TEST_PROPERTIES RESOURCE_LOCK s7_port_102)

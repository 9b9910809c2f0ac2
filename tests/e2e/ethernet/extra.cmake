# The S7 test puts Snap7's server on port 102.
set(DS_TEST_PROPERTIES RESOURCE_LOCK s7_port_102)

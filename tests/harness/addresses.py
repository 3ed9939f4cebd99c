"""Addresses of the component and end-to-end tests, from the ranges for documentation."""
AGENT4, COLLECTOR4, COLLECTOR4_B = "198.51.100.1", "198.51.100.2", "198.51.100.3"
AGENT6, COLLECTOR6 = "2001:db8::1", "2001:db8::2"
SWITCH4, HOST4 = AGENT4, COLLECTOR4
SWITCH6, HOST6 = AGENT6, COLLECTOR6

// Network helpers: this machine's host name and first IPv4 address, and a TCP reachability check.
#pragma once

// The host name in a process-wide 2048-byte buffer; null (logged) when it cannot be read.
const char* qvhlp_GetMyFQDN();
// The first IPv4 address of this host's name in dotted form, in a second process-wide 2048-byte
// buffer; null (logged) when the name or its address cannot be obtained.
const char* qvhlp_GetMyIP();

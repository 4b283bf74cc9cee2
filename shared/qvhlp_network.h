// Network helpers: this machine's host name and first IPv4 address, and a TCP reachability check.
#pragma once

#include <string>

// The host name in a process-wide 2048-byte buffer; null (logged) when it cannot be read.
const char* qvhlp_GetMyFQDN();
// The first IPv4 address of this host's name in dotted form, in a second process-wide 2048-byte
// buffer; null (logged) when the name or its address cannot be obtained.
const char* qvhlp_GetMyIP();

// Whether a TCP connection to host:port (IPv4; a dotted address or a name) can be opened within
// three seconds. 0 when it can; -1 when the port is not a number or no socket is available; -2
// when the connection fails or times out, with "Failed to connect to host:port" in *errmsg (when
// given). A name that does not resolve is tried as address 0.0.0.0, which Linux treats as this
// host.
int qvhlp_CheckConnect(const char* host, const char* port, std::string* errmsg);

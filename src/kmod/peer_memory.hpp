#pragma once

// Whether the OFED sources that the peer-memory module needs are on this host.
// A version that differs from the running kernel is only a warning.
bool ofed_available();

#pragma once

#include <string>

// Opens a raw SocketCAN socket on the interface, bound and non-blocking; -1 on failure.
int initializeSocket(const std::string& name);

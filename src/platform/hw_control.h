// The hardware-control library (libhwcontrol).
// Declarations only; the linked platform defines it.
#pragma once

// Sends `command` with `length` bytes of `buffer` to the hardware-control
// service. 0 on success, negative on failure.
int QUORHWExternalControl(int command, int length, const char* buffer);

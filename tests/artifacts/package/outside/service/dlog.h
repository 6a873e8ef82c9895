// The header of a device's log service, which happens to be named like one of the library's.
#ifndef DEVICE_LOG_H
#define DEVICE_LOG_H

namespace device_log {

inline const char* Name()
{
    return "device:";
}

}  // namespace device_log

#endif  // DEVICE_LOG_H

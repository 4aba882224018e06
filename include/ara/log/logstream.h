// ara::log: the log stream, under the file name some releases use (same as log_stream.h).

#ifndef ARA_LOG_LOGSTREAM_H
#define ARA_LOG_LOGSTREAM_H

#include "ara/log/log_stream.h"  // which gives the whole interface

#endif  // ARA_LOG_LOGSTREAM_H

#ifndef LOGFERRY_SEGMENT_ACCESS_HPP
#define LOGFERRY_SEGMENT_ACCESS_HPP

// The shared fields' atomic helpers live with the segment layouts' other helpers.
#include "wire/shared_fields.hpp"

#endif

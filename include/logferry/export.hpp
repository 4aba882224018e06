#ifndef LOGFERRY_EXPORT_HPP
#define LOGFERRY_EXPORT_HPP

// The library is built with hidden visibility; everything that belongs to its public
// surface carries this mark.
#define LOGFERRY_API __attribute__((visibility("default")))

#endif

/// @file
/// Visibility of what the libraries export. They are built with hidden visibility; a class or a
/// function marked with this is part of the ABI.
#ifndef PELMAR_EXPORT_H
#define PELMAR_EXPORT_H

#define PELMAR_API __attribute__((visibility("default")))

/// What lives inside such a class and is no part of the ABI.
#define PELMAR_HIDDEN __attribute__((visibility("hidden")))

#endif

/// Visibility of the library's symbols: what is not marked stays inside libkova.so.
#ifndef KOVA_EXPORT_H
#define KOVA_EXPORT_H

#define KOVA_API __attribute__((visibility("default")))

#endif

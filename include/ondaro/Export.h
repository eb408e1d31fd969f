#ifndef ONDARO_EXPORT_H
#define ONDARO_EXPORT_H

/** Marks what the shared library exports; everything else in it is hidden. */
#define ONDARO_EXPORT __attribute__((visibility("default")))

#endif

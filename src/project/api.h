/* Marks what the shared project library exports; everything else in it
 * stays hidden. */
#ifndef LOCKSTEP_API_H
#define LOCKSTEP_API_H

#if defined(__GNUC__)
#define LOCKSTEP_API __attribute__((visibility("default")))
#else
#define LOCKSTEP_API
#endif

#endif

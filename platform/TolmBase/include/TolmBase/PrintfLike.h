#pragma once

// Lets the compiler check the arguments of printf-like functions, where it can: `format` and `first` are the
// numbers of the parameters that hold the format and the first of its arguments.
#if defined(__MINGW32__)
// The formats are the standard's, also where the system's own printf knows others.
#define TOLM_PRINTF_LIKE(format_at, first_at) __attribute__((format(gnu_printf, format_at, first_at)))
#elif defined(__GNUC__)
#define TOLM_PRINTF_LIKE(format_at, first_at) __attribute__((format(printf, format_at, first_at)))
#else
#define TOLM_PRINTF_LIKE(format_at, first_at)
#endif

/* The attribute spellings that module sources expect from the kernel. */
#ifndef _LINUX_COMPILER_H
#define _LINUX_COMPILER_H

#define __used __attribute__((__used__))
#define __maybe_unused __attribute__((__unused__))
#define __section(s) __attribute__((__section__(s)))
#define __aligned(x) __attribute__((__aligned__(x)))
#define __cold __attribute__((__cold__))
#define __copy(symbol) __attribute__((__copy__(symbol)))
#define __printf(a, b) __attribute__((__format__(printf, a, b)))

#define ___PASTE(a, b) a##b
#define __PASTE(a, b) ___PASTE(a, b)
#define __UNIQUE_ID(prefix) __PASTE(__PASTE(__UNIQUE_ID_, prefix), __COUNTER__)

#define __stringify_1(x...) #x
#define __stringify(x...) __stringify_1(x)

#endif

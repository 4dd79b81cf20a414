/* Fixed-width kernel types, enough for small out-of-tree modules. */
#ifndef _LINUX_TYPES_H
#define _LINUX_TYPES_H

typedef unsigned char u8;
typedef unsigned short u16;
typedef unsigned int u32;
typedef unsigned long long u64;
typedef signed char s8;
typedef short s16;
typedef int s32;
typedef long long s64;
typedef unsigned long size_t;
typedef _Bool bool;

#define true 1
#define false 0
#define NULL ((void *)0)

#endif

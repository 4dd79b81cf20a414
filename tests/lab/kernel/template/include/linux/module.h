/* Module entry points and the .modinfo strings that modinfo and depmod read. */
#ifndef _LINUX_MODULE_H
#define _LINUX_MODULE_H

#include <linux/compiler.h>
#include <linux/init.h>
#include <linux/types.h>

/* Each tag is one NUL-terminated "tag=value" string in .modinfo, exactly as
 * the kernel lays them out, so that kmod's tools parse them unchanged. */
#define __MODULE_INFO(tag, name, info) \
	static const char __UNIQUE_ID(name)[] __used __section(".modinfo") __aligned(1) = \
		__stringify(tag) "=" info
#define MODULE_INFO(tag, info) __MODULE_INFO(tag, tag, info)

#define MODULE_LICENSE(_license) MODULE_INFO(license, _license)
#define MODULE_VERSION(_version) MODULE_INFO(version, _version)
#define MODULE_DESCRIPTION(_description) MODULE_INFO(description, _description)
#define MODULE_AUTHOR(_author) MODULE_INFO(author, _author)
#define MODULE_ALIAS(_alias) MODULE_INFO(alias, _alias)
#define MODULE_SOFTDEP(_softdep) MODULE_INFO(softdep, _softdep)

#define module_init(initfn) \
	static inline initcall_t __maybe_unused __inittest(void) { return initfn; } \
	int init_module(void) __copy(initfn) __attribute__((__alias__(#initfn)))

#define module_exit(exitfn) \
	static inline exitcall_t __maybe_unused __exittest(void) { return exitfn; } \
	void cleanup_module(void) __copy(exitfn) __attribute__((__alias__(#exitfn)))

#endif

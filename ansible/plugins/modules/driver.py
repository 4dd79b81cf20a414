#!/usr/bin/python
# -*- coding: utf-8 -*-
# GNU General Public License v3.0+ (see https://www.gnu.org/licenses/gpl-3.0.txt)

from __future__ import absolute_import, division, print_function
__metaclass__ = type

DOCUMENTATION = r'''
module: driver
short_description: Installs or removes the Quorl GPU driver
version_added: 1.0.0
description:
  - Installs the Quorl driver from its package with the package's own C(quorl-driver-installer), or removes it with the
    installed C(quorl-driver-uninstaller).
  - Before anything runs, it asks C(quorl-driver-status --json). With I(state=present), a driver of the package's
    version, installed at the same prefix, built the same way (DKMS or not), intact, loaded and with its services
    enabled, is left alone. Anything else (not installed, an older version, a file that an administrator edited, a
    module that is not loaded) makes it run the installer, which first removes the driver that is there.
  - In check mode it runs the package's C(quorl-driver-preview), which runs the very same installer or uninstaller
    over a copy-on-write view of the host and reports what it would create, change and delete, the kernel modules it
    would unload and load and the C(systemctl) calls. With C(--diff), that report is the task's diff, one line for each of
    C(+ PATH) created, C(~ PATH) changed, C(- PATH) deleted, C(unload MODULE), C(load MODULE), then the calls. A preview whose
    status is not 0 fails the task already in check mode, with the installer's own message and code.
  - A failed installation or removal fails the task with the program's exit status as C(rc), its console's message
    and the last lines of its log.
  - A module in use stops the installer with C(43) before it removes anything; the installer still writes its install
    record then, so the module puts the older driver's record back, and that driver stays removable.
  - The result codes of the three programs are listed under I(rc) below.
author:
  - Vantoria driver team (@vantoria)
requirements:
  - The driver package on the host, as the C(.run) file or unpacked; the programs run as root.
attributes:
  check_mode:
    support: full
    description: Runs the package's preview, which changes nothing on the host.
  diff_mode:
    support: full
    description: The preview's report of what would be created, changed and deleted, unloaded, loaded and called.
options:
  package:
    description:
      - Path on the host of the driver package, C(quorl-driver-3.2.1.run) or the directory it unpacks to.
      - Required with I(state=present). With I(state=absent), it gives the preview for check mode, and its
        uninstaller stands in for the installed one when that is gone.
    type: path
  state:
    description:
      - C(present) installs the package's driver unless it is already installed, intact and loaded.
      - C(absent) removes the installed driver.
    type: str
    choices: [present, absent]
    default: present
  disable_dkms:
    description:
      - Build the modules with plain C(make) instead of DKMS (C(--disable-dkms)).
      - An installation built the other way is installed again.
    type: bool
    default: false
  kernel_source_path:
    description:
      - The kernel source tree to build against (C(--kernel-source-path)). The installer searches for the running
        kernel's when it is not given.
    type: path
  prefix:
    description:
      - The installation root (C(--prefix)); the driver goes to I(prefix)/quorl-VERSION/. The installer's default is
        C(/usr/local).
      - An installation at another prefix is installed again.
    type: path
  vgpu:
    description:
      - C(true) builds with vGPU support (C(--with-vgpu)), C(false) without (C(--without-vgpu)). When not set, the
        installer's default holds, which is without.
    type: bool
  signing_secret_key:
    description:
      - Path on the host of the secret key that signs the modules (C(--module-signing-secret-key)). Give both keys or
        neither.
    type: path
  signing_public_key:
    description:
      - Path on the host of the public key, in DER form, that goes with I(signing_secret_key)
        (C(--module-signing-public-key)).
    type: path
  force:
    description:
      - Install even when the driver is already installed, intact and loaded, for instance to rebuild with other
        keys, another kernel tree or another vGPU choice, which the host cannot tell afterwards.
    type: bool
    default: false
notes:
  - The programs need root; use C(become) when the connection is not root's.
  - The installer's log is C(/var/log/vantoriaquorl/driver_installer.log), the uninstaller's
    C(/var/log/vantoriaquorl/driver_uninstaller.log).
seealso:
  - module: vantoria.quorl.driver_info
'''

EXAMPLES = r'''
- name: Quorl driver from the .run file
  vantoria.quorl.driver:
    package: /root/quorl-driver-3.2.1.run

- name: Quorl driver built with make, signed with our keys
  vantoria.quorl.driver:
    package: /srv/quorl-driver-3.2.1
    disable_dkms: true
    signing_secret_key: /root/keys/module-signing.key
    signing_public_key: /root/keys/module-signing.der

- name: No Quorl driver
  vantoria.quorl.driver:
    state: absent
'''

RETURN = r'''
rc:
  description:
    - The exit status of the installer, the uninstaller or, in check mode, the preview; 0 on success, otherwise the
      code of the step that failed.
    - "The installer's codes:"
    - C(5) a general failure.
    - C(8) a file or tool missing (openssl to make signing keys, the DKMS source copy, a service's file).
    - C(11) the installation target is unusable.
    - C(31) the compiler check failed.
    - C(32) no usable kernel source.
    - C(33) a tool missing.
    - C(34) the build failed.
    - C(35) the module copy into the kernel's tree, or the service's status check, failed.
    - C(36) the firmware copy failed.
    - C(37) the package has no version.
    - C(38) the modules are not for the running kernel.
    - C(39) the user-space files could not be copied.
    - C(43) a driver module is in use.
    - C(45) C(dkms add) failed.
    - C(49) the kernel refused to load a module.
    - C(50) the kernel rejected the signing key.
    - C(51) C(modprobe) failed.
    - C(52) C(dkms install) failed.
    - C(53) C(depmod) failed.
    - C(54) no card with suitable firmware.
    - "The uninstaller's codes: C(43) a module is in use (it says what holds it, and nothing is removed);
      C(140) to C(147) a step of the removal stopped (the install record is kept, and the next run resumes);
      C(53) the module index could not be refreshed."
    - The preview exits with the code that the installation or removal would have had, or C(125) when it cannot run
      (it says why).
  returned: when one of them ran
  type: int
  sample: 43
status:
  description:
    - The report of C(quorl-driver-status --json) after the task; in check mode, the host as it is.
    - Its own C(status) is 0 installed, intact and loaded, 1 installed with problems (listed in C(problems)),
      3 not installed, 4 cannot tell.
  returned: always
  type: dict
  contains:
    status:
      description: 0 intact, 1 drift, 3 not installed, 4 cannot tell.
      type: int
      sample: 0
    installed:
      description: Whether a driver is installed; null when it cannot be told.
      type: bool
    version:
      description: The installed version.
      type: str
      sample: 3.2.1
    prefix:
      description: The installed driver's own directory.
      type: str
      sample: /usr/local/quorl-3.2.1/
    changed:
      description: Installed files that changed since, sorted.
      type: list
      elements: str
    missing:
      description: Installed paths that are gone, sorted.
      type: list
      elements: str
    modules_loaded:
      description: The driver's kernel modules that are loaded.
      type: list
      elements: str
      sample: [vantoria]
    services_enabled:
      description: The driver's services that are enabled.
      type: list
      elements: str
    problems:
      description: One line for each problem found.
      type: list
      elements: str
  sample:
    status: 0
    installed: true
    version: 3.2.1
    prefix: /usr/local/quorl-3.2.1/
    changed: []
    missing: []
    modules_loaded: [vantoria]
    services_enabled: [vantoriaquorl-init@vantoria]
    problems: []
preview:
  description: The report of C(quorl-driver-preview --json).
  returned: in check mode, when the preview ran
  type: dict
  contains:
    status:
      description: The exit status that the installation or removal would have had.
      type: int
    created:
      description: Paths it would create.
      type: list
      elements: str
    changed:
      description: Paths it would change.
      type: list
      elements: str
    deleted:
      description: Paths it would delete.
      type: list
      elements: str
    modules_unloaded:
      description: Kernel modules it would unload, in order.
      type: list
      elements: str
    modules_loaded:
      description: Kernel modules it would load, in order.
      type: list
      elements: str
    systemctl:
      description: The systemctl calls it would make, in order.
      type: list
      elements: str
    log:
      description: The text of the installer's or uninstaller's log.
      type: str
uninstall:
  description: The report of C(quorl-driver-uninstaller --json).
  returned: when the uninstaller ran
  type: dict
  sample:
    status: 43
    modules_unloaded: []
    services: []
    dkms: []
    removed: []
    kept: []
    log: /var/log/vantoriaquorl/driver_uninstaller.log
    message: "Kernel module vantoria is in use (use count 1, held by no other module): stop what uses it, then run the
      uninstaller again. Nothing was removed from the disk."
log_lines:
  description: The last lines of the installer's log.
  returned: when the installer failed
  type: list
  elements: str
'''

import os

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.vantoria.quorl.plugins.module_utils.quorl import (
    INSTALLER_LOG, MODULE_BUSY, Package, console_message, driver_status, last_lines, read_record, run_json,
    write_record)


def installer_options(params):
    options = []
    if params['prefix']:
        options += ['--prefix', params['prefix']]
    if params['kernel_source_path']:
        options += ['--kernel-source-path', params['kernel_source_path']]
    if params['disable_dkms']:
        options.append('--disable-dkms')
    if params['vgpu'] is not None:
        options.append('--with-vgpu' if params['vgpu'] else '--without-vgpu')
    if params['signing_secret_key']:
        # The installer takes relative key paths from the caller's directory; ours is the module's.
        options += ['--module-signing-secret-key', os.path.abspath(params['signing_secret_key']),
                    '--module-signing-public-key', os.path.abspath(params['signing_public_key'])]
    return options


def as_installed(params, package, status):
    """Whether the host already has what the task asks: the package's
    version at the asked prefix, built the asked way, intact and loaded."""
    wanted = os.path.join(params['prefix'] or '/usr/local', 'quorl-' + package.version)
    return (status['status'] == 0 and status.get('version') == package.version
            and os.path.normpath(status.get('prefix') or '') == os.path.normpath(wanted)
            and (status.get('dkms') is None) == params['disable_dkms'])


def diff_of(preview):
    """The preview's report as the task's diff: paths created (+), changed (~) and deleted (-), then the modules
    unloaded and loaded and the systemctl calls, each in its order."""
    marks = (('created', '+ '), ('changed', '~ '), ('deleted', '- '), ('modules_unloaded', 'unload '),
             ('modules_loaded', 'load '), ('systemctl', ''))
    return {'prepared': ''.join(mark + item + '\n' for key, mark in marks for item in preview[key])}


def preview(module, package, argv, noun, status):
    """Check mode: the package's preview, whose status is the one the run would have."""
    if package is None:
        module.warn('Without package there is no preview to tell what the removal would do.')
        module.exit_json(changed=True, status=status)
    rc, report, err = run_json(module, ['./quorl-driver-preview', '--json'] + argv, cwd=package.dir)
    if report is None:
        module.fail_json(msg='The preview cannot run (exit status %d): %s' % (rc, err.strip()), rc=rc, status=status)
    result = dict(rc=rc, status=status, preview=report)
    if rc != 0:
        module.fail_json(msg='The %s would fail with code %d: %s' % (noun, rc, console_message('', err)), **result)
    if module._diff:
        result['diff'] = diff_of(report)
    module.exit_json(changed=True, **result)


def install(module, package, status):
    params = module.params
    if as_installed(params, package, status) and not params['force']:
        module.exit_json(changed=False, status=status)
    options = installer_options(params)
    if module.check_mode:
        preview(module, package, ['--'] + options, 'installation', status)
    older_record = read_record()
    rc, out, err = module.run_command(['./quorl-driver-installer'] + options, cwd=package.dir)
    if rc == MODULE_BUSY and older_record is not None:
        # The installer writes its record even when a busy module stopped it
        # before it removed anything; the older driver is still all there, so
        # its record goes back, and it stays removable.
        write_record(older_record)
    after = driver_status(module, package)
    if rc != 0:
        module.fail_json(msg='The installation failed with code %d: %s' % (rc, console_message(out, err)),
                         rc=rc, status=after, log_lines=last_lines(INSTALLER_LOG))
    module.exit_json(changed=True, rc=rc, status=after)


def remove(module, package, status):
    if status.get('installed') is False:
        module.exit_json(changed=False, status=status)
    if status.get('installed') is None:
        module.fail_json(msg='Cannot tell whether a driver is installed: %s' % '; '.join(status.get('problems', [])),
                         status=status)
    if module.check_mode:
        preview(module, package, ['--uninstall'], 'removal', status)
    # The installed uninstaller, or the package's when an administrator removed it: both remove what the record lists.
    uninstaller = os.path.join(status['prefix'], 'bin', 'quorl-driver-uninstaller')
    if not os.path.exists(uninstaller) and package is not None:
        uninstaller = os.path.join(package.dir, 'quorl', 'bin', 'quorl-driver-uninstaller')
    rc, report, err = run_json(module, [uninstaller, '--json'])
    after = driver_status(module, package)
    if rc != 0:
        message = (report or {}).get('message') or err
        module.fail_json(msg='The removal failed with code %d: %s' % (rc, message.strip()), rc=rc, status=after,
                         uninstall=report)
    module.exit_json(changed=True, rc=rc, status=after, uninstall=report)


def main():
    module = AnsibleModule(
        argument_spec=dict(
            package=dict(type='path'),
            state=dict(type='str', default='present', choices=['present', 'absent']),
            disable_dkms=dict(type='bool', default=False),
            kernel_source_path=dict(type='path'),
            prefix=dict(type='path'),
            vgpu=dict(type='bool'),
            signing_secret_key=dict(type='path', no_log=False),
            signing_public_key=dict(type='path', no_log=False),
            force=dict(type='bool', default=False),
        ),
        required_if=[('state', 'present', ('package',))],
        required_together=[('signing_secret_key', 'signing_public_key')],
        supports_check_mode=True,
    )
    package = Package(module, module.params['package']) if module.params['package'] else None
    status = driver_status(module, package)
    if module.params['state'] == 'present':
        install(module, package, status)
    remove(module, package, status)


if __name__ == '__main__':
    main()

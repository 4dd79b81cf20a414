# -*- coding: utf-8 -*-
# GNU General Public License v3.0+ (see https://www.gnu.org/licenses/gpl-3.0.txt)

# What the modules share: where the driver's own programs lie on a host and
# how to ask them. The programs decide everything; the modules only run them
# and pass on what they answer, so that Ansible says what an administrator
# at the console would read.

from __future__ import absolute_import, division, print_function
__metaclass__ = type

import json
import os

RECORD = '/var/log/vantoriaquorl/uninstall/.driver_uninstall_manifests'
INSTALLER_LOG = '/var/log/vantoriaquorl/driver_installer.log'


class Package(object):
    """The driver package on the host: a directory as unpacked, or a .run
    file, which is unpacked once into the module's temporary directory so
    that its status program can be asked before anything is installed."""

    def __init__(self, module, path):
        if os.path.isdir(path):
            self.dir = path
        elif os.path.isfile(path):
            self.dir = os.path.join(module.tmpdir, 'package')
            rc, out, err = module.run_command(['sh', path, '--quiet', '--target', self.dir, '--noexec'])
            if rc != 0:
                module.fail_json(msg='Cannot unpack %s (exit status %d): %s' % (path, rc, (err or out).strip()), rc=rc)
        else:
            module.fail_json(msg='No driver package at %s' % path)
        try:
            with open(os.path.join(self.dir, '.manifest')) as manifest:
                lines = manifest.read().splitlines()
        except (IOError, OSError):
            lines = []
        if len(lines) < 2 or not lines[1].strip():
            module.fail_json(msg='%s is not a Quorl driver package: it has no .manifest naming its version' % path)
        # The .manifest's second line is the package's version.
        self.version = lines[1].strip()
        self.status_program = os.path.join(self.dir, 'quorl', 'bin', 'quorl-driver-status')


# The installer's and the uninstaller's code for a module in use.
MODULE_BUSY = 43


def read_record():
    """The install record's bytes, or None when there is none."""
    try:
        with open(RECORD, 'rb') as record:
            return record.read()
    except (IOError, OSError):
        return None


def write_record(content):
    with open(RECORD, 'wb') as record:
        record.write(content)


def installed_prefix():
    """The driver prefix that the install record names on its first line,
    "QUORL <prefix>"; None when no driver is installed."""
    try:
        with open(RECORD) as record:
            first = record.readline().split()
    except (IOError, OSError):
        return None
    return first[1] if len(first) == 2 and first[0] == 'QUORL' else None


def run_json(module, argv, cwd=None):
    """Runs one of the driver's programs with --json; (exit status, the
    object it printed or None, its standard error)."""
    rc, out, err = module.run_command(argv, cwd=cwd)
    try:
        report = json.loads(out)
    except ValueError:
        report = None
    return rc, report if isinstance(report, dict) else None, err


def driver_status(module, package=None):
    """The status report of quorl-driver-status --json: the package's
    program when there is a package, else the installed one. With neither,
    no driver is installed and only status and installed can be told."""
    if package is not None:
        program = package.status_program
    elif installed_prefix():
        program = os.path.join(installed_prefix(), 'bin', 'quorl-driver-status')
    else:
        return {'status': 3, 'installed': False}
    rc, report, err = run_json(module, [program, '--json'])
    # 0 intact, 1 drift, 3 not installed, 4 cannot tell; anything else is no answer.
    if report is None or rc not in (0, 1, 3, 4):
        module.fail_json(msg='%s --json gave no report (exit status %d): %s' % (program, rc, err.strip()), rc=rc)
    return report


def console_message(out, err):
    """The console of a run as one line, for a task's msg."""
    return ' '.join(line.strip() for line in (out + '\n' + err).splitlines() if line.strip())


def last_lines(path, count=15):
    try:
        with open(path, errors='replace') as log:
            return log.read().splitlines()[-count:]
    except (IOError, OSError):
        return []

# The fleet test's way into a simulated host (tests/lab), named as in the
# inventory: each command runs in it through the build's lab-attach (LAB_ATTACH),
# and files travel through the command's standard streams.
from __future__ import absolute_import, division, print_function
__metaclass__ = type

import os
import shlex
import subprocess

from ansible.errors import AnsibleError
from ansible.plugins.connection import ConnectionBase


class Connection(ConnectionBase):
    transport = 'lab_host'
    has_pipelining = True

    def _connect(self):
        self._connected = True
        return self

    def _attach(self, argv, data=None):
        command = [os.environ['LAB_ATTACH']]
        # A preview plays the kernel itself, which the lab's kernel would not
        # let it do; in check mode the module only asks and previews.
        if self._play_context.check_mode:
            command.append('--no-lab-kernel')
        done = subprocess.run(command + [self._play_context.remote_addr] + argv, input=data, capture_output=True)
        return done.returncode, done.stdout, done.stderr

    def exec_command(self, cmd, in_data=None, sudoable=True):
        super(Connection, self).exec_command(cmd, in_data=in_data, sudoable=sudoable)
        return self._attach(['/bin/sh', '-c', cmd], in_data)

    def put_file(self, in_path, out_path):
        with open(in_path, 'rb') as f:
            rc, out, err = self._attach(['/bin/sh', '-c', 'cat > ' + shlex.quote(out_path)], f.read())
        if rc != 0:
            raise AnsibleError('cannot put %s: %s' % (out_path, err))

    def fetch_file(self, in_path, out_path):
        rc, out, err = self._attach(['cat', in_path])
        if rc != 0:
            raise AnsibleError('cannot fetch %s: %s' % (in_path, err))
        with open(out_path, 'wb') as f:
            f.write(out)

    def close(self):
        self._connected = False

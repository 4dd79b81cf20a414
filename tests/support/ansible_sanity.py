# ansible-test sanity on a copy of the collection laid out as
# ansible_collections/vantoria/quorl, as ansible-test demands. Its tests want
# virtual environments with pinned requirements fetched by pip; offline, the
# requirements are Debian's packages instead, in one virtual environment that
# sees them. Every test runs but pslint, which needs PowerShell.
#
#   python3 ansible_sanity.py COLLECTION_SOURCE WORK_DIR
import os
import shutil
import subprocess
import sys

from ansible_test._internal import main
from ansible_test._internal.commands import sanity
from ansible_test._internal.host_configs import VirtualPythonConfig
from ansible_test._internal.provider.source.git import GitSource

source, work = sys.argv[1:3]
shutil.rmtree(work, ignore_errors=True)
root = os.path.join(work, 'ansible_collections', 'vantoria', 'quorl')
shutil.copytree(source, root)
venv = os.path.join(work, 'venv')
subprocess.run([sys.executable, '-m', 'venv', '--system-site-packages', '--without-pip', venv], check=True)
sanity.create_sanity_virtualenv = lambda args, python, name, **kwargs: VirtualPythonConfig(
    version=python.version, path=os.path.join(venv, 'bin', 'python'))
sanity.check_sanity_virtualenv_yaml = lambda python: True
# The copy lies in a build directory that the repository's git ignores, so
# that git would list none of its files; ansible-test walks the copy instead.
GitSource.is_content_root = staticmethod(lambda path: False)

os.chdir(root)
version = '%d.%d' % sys.version_info[:2]
sys.argv = ['ansible-test', 'sanity', '--python', version, '--python-interpreter', sys.executable,
            '--color', 'no', '--skip-test', 'pslint']
main()

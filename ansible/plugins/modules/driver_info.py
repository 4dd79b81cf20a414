#!/usr/bin/python
# -*- coding: utf-8 -*-
# GNU General Public License v3.0+ (see https://www.gnu.org/licenses/gpl-3.0.txt)

from __future__ import absolute_import, division, print_function
__metaclass__ = type

DOCUMENTATION = r'''
module: driver_info
short_description: Reports the installed Quorl GPU driver as facts
version_added: 1.0.0
description:
  - Asks the installed C(quorl-driver-status --json) whether the Quorl driver is installed, and whether its files,
    kernel modules, services and cards are as its installation left them, and returns the report as the fact
    C(quorl_driver). It changes nothing, so that a whole fleet can be audited in one command.
  - The installed status program is found through the install record. When no driver is installed and no
    I(package) is given, there is no program to ask, and the fact holds only C(status) 3 and C(installed) false.
author:
  - Vantoria driver team (@vantoria)
attributes:
  check_mode:
    support: full
    description: It changes nothing in any mode.
  diff_mode:
    support: none
    description: There is nothing to show.
  facts:
    support: full
    description: The report is the fact C(quorl_driver).
options:
  package:
    description:
      - Path on the host of a driver package (the C(.run) file or the directory it unpacks to) whose status program
        to ask instead of the installed one.
    type: path
notes:
  - The status program reads the cards' registers only as root; otherwise C(cards) is null.
seealso:
  - module: vantoria.quorl.driver
'''

EXAMPLES = r'''
- name: What each host has of the Quorl driver
  vantoria.quorl.driver_info:

- name: Hosts whose driver drifted
  ansible.builtin.debug:
    msg: "{{ quorl_driver.problems }}"
  when: quorl_driver.status != 0
'''

RETURN = r'''
ansible_facts:
  description: Facts about the host's Quorl driver.
  returned: always
  type: complex
  contains:
    quorl_driver:
      description:
        - The report of C(quorl-driver-status --json); its C(status) is 0 installed, intact and loaded,
          1 installed with problems (listed in C(problems)), 3 not installed, 4 cannot tell.
      returned: always
      type: dict
      sample:
        status: 0
        installed: true
        version: 3.2.1
        prefix: /usr/local/quorl-3.2.1/
        intact: 34
        changed: []
        missing: []
        unreadable: []
        dkms: {version: 3.2.1, registered: true}
        running_kernel: 6.1.0-28-amd64
        modules_for_running_kernel: true
        module_kernels: []
        modules_loaded: [vantoria]
        loaded_version: 3.2.1
        services_enabled: [vantoriaquorl-init@vantoria]
        services_disabled: []
        cards: [{address: "0000:65:00.0", device: "0x0002", driver: vantoria, firmware: 1.0.9}]
        firmware_check: passed
        problems: []
'''

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.vantoria.quorl.plugins.module_utils.quorl import Package, driver_status


def main():
    module = AnsibleModule(argument_spec=dict(package=dict(type='path')), supports_check_mode=True)
    package = Package(module, module.params['package']) if module.params['package'] else None
    module.exit_json(changed=False, ansible_facts=dict(quorl_driver=driver_status(module, package)))


if __name__ == '__main__':
    main()

#!/bin/sh
# A site's settings, as commands. Every one is taken up while the agent runs.
set -e
export KELDWICK_ROOT=/var/lib/keldwick

keldwickctl settings set IdentServer identity.example.net
keldwickctl settings set IdentProtocol tcps # TLS only; auto tries TLS first
keldwickctl settings set Heartbeat 10       # minutes between two reports of the same identity
keldwickctl settings set LogonTTL 30        # minutes that an identity lives without a new logon
keldwickctl settings set DebugOutput 0x102  # the log file, with verbose lines

# Names and groups from Active Directory, with a keytab of the agent's own.
keldwickctl settings set 'Linux\DirectoryUri' ldap://dc1.corp.example.com
keldwickctl settings set 'Linux\DirectoryKeytab' /etc/keldwick/agent.keytab
keldwickctl directory check

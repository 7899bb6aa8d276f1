#!/bin/sh
# A site's settings, as commands. Every one is taken up while the agent runs.
set -e
export KELDWICK_ROOT=/var/lib/keldwick

keldwickctl settings set IdentServer identity.example.net
# TLS only. Groups do not go over TLS, and TLS authenticates no one; with tcp the groups go, readable for anyone who listens. auto
# tries TLS first, and keeps to what worked until the agent is restarted. A change applies at the next connection.
keldwickctl settings set IdentProtocol tcps
keldwickctl settings set Heartbeat 10       # minutes between two reports of the same identity
keldwickctl settings set LogonTTL 30        # minutes that an identity lives without a new logon
keldwickctl settings set DebugOutput log,append,verbose

# Names and groups from Active Directory, with a keytab of the agent's own.
keldwickctl settings set 'Linux\DirectoryUri' ldap://dc1.corp.example.com
keldwickctl settings set 'Linux\DirectoryKeytab' /etc/keldwick/agent.keytab
keldwickctl directory check

# Does it all work?
keldwickctl check --exchange

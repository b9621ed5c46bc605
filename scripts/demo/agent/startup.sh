#!/bin/sh
# Starts the sample agent and writes its process id to norvak.pid. Like the agent, which does this
# when it loads its rules, it also records the digest of the rule file.
cd "$(dirname "$0")" || exit 1
md5sum <template/norvak_default_rule.xml | cut -c 1-32 >template/system_rule.dat
setsid ./norvak_agent </dev/null >/dev/null 2>&1 &
echo $! >norvak.pid.new && mv norvak.pid.new norvak.pid

#!/bin/sh
# Starts the sample agent and notes its process id. As the agent does with rules that it has loaded,
# the digest of the rule file is recorded.
cd "$(dirname "$0")" || exit 1
md5sum <template/norvak_default_rule.xml | cut -c 1-32 >template/system_rule.dat
setsid ./norvak_agent </dev/null >/dev/null 2>&1 &
echo $! >norvak.pid

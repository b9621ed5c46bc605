#!/usr/bin/env bash
# The scenes of the demo, for sandbox.sh.
#
# Usage: scenes.sh [--keep] PROGRAM_FOLDER SCRATCH_FOLDER
#
# Sets up a sample agent and an update server in the scratch folder, runs the updater on them and
# checks what it shows. The first unexpected result ends the demo with status 1.
set -euo pipefail
keep=
if [[ $1 == --keep ]]; then
  keep=yes
  shift
fi
demo=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
programs=$1
scratch=$2
updater=$programs/norvak_update
install=$scratch/norvak_agent
kernel_folder=  # the server's folder of modules for this host
distribution=   # the family of this host
readonly demo programs scratch updater install
. "$demo/../lib.sh"
. "$demo/show.sh"
. "$demo/agent.sh"
. "$demo/server.sh"

prepare_host() {
  umask 022
  export LC_ALL=C no_proxy=127.0.0.1  # a proxy cannot reach this server
  start_server
  create_agent norvak3.1.9
  mkdir "$scratch/var_log"
  printf '%s\n' "$install" >"$scratch/var_log/version_control"
  mount --bind "$scratch/var_log" /var/log
  start_agent
}

introduction() {
  heading 'norvak_update: a demo'
  paragraph 'norvak_update is the updater of a host-security agent. This demo runs the real program' \
    'against a sample agent and a real web server, both in a scratch folder. It shows the four' \
    'kinds of update: with something to install, with nothing to do, and with mistakes on the' \
    'server. The updater runs in a sandbox, in which /var/log/version_control names the sample' \
    'agent. Nothing on this machine is updated.'
  cat <<END

Each scene shows
   command   what was run
   requests  what the updater requested from the server
   log       the lines that it added to runlog/update.log, without their time stamps. Their wording
             is fixed, odd spelling included, because scripts rely on it.
   exit      0: something was installed, or all kernel modules are current.
             255: nothing was installed, because there was nothing to do or because the run failed.
             The log distinguishes the two.
   result    the state after the run, with "old -> new" where it changed. A file is "new" if it is
             the same as on the server, and "old" otherwise.

Agent:   $install
Server:  $server_url (nginx)
END
}

agent_software_scenes() {
  heading 'type 0: the agent software'
  publish_agent norvak3.1.10

  scene 'Automatic run: the server has a newer agent' \
    'The updater stops the agent, runs the script of the downloaded package, records the new version' \
    'and starts the agent again.'
  run soft_state 0 0
  expect_status 0
  expect_log '[SOFT] update norvak agent success'
  expect_agent restarted
  expect_setting version norvak3.1.10
  expect_same_file "$install/norvak_agent" "$server_package/norvak_agent"

  scene 'Automatic run: nothing to do' 'The server still has the same version.'
  run soft_state 0 0
  expect_status 255
  expect_requests 'GET /norvak/norvak_agent_new_version.txt'
  expect_log '[SOFT] norvak is not need to update, or check new version fail'
  expect_agent untouched

  publish_agent norvak3.1.11
  set_setting update_type 1
  scene 'Manual run' \
    'A manual run ignores update_type and does not compare versions. This package brings its own' \
    'config.xml, with update_type 0: the updater restores the 1. It records the version that the' \
    "package's script reports, as packages of norvak_publish do; without a report it would clear" \
    'the setting.'
  run soft_state 0 1
  expect_status 0
  expect_log '[SOFT] update norvak agent success'
  expect_agent restarted
  expect_setting update_type 1
  expect_setting version norvak3.1.11
  expect_same_file "$install/norvak_agent" "$server_package/norvak_agent"

  scene 'Automatic run: not allowed' 'On this host update_type is 1: manual updates only.'
  run soft_state 0 0
  expect_status 255
  expect_requests
  expect_log '[SOFT] update type is manual, but this is autoupdate subroutine'
  expect_agent untouched
}

kernel_module_scenes() {
  local module
  heading 'type 1: the kernel modules'

  scene 'The server has no modules for this kernel' \
    "The path on the server consists of the distribution family (centos, unless the agent's" \
    "installer left a marker file), the processor and the beginning of the kernel release, here of" \
    "$(uname -r). nginx answers with its error page 404, which is not a digest."
  run kernel_state 1
  expect_status 255
  expect_log '[KERNEL] download MD5 file is abnormal' \
    '[KERNEL] check kernel norvak_ipfilter MD5 failed'
  kernel_folder=${requests[0]#GET }
  kernel_folder=${kernel_folder%/norvak_ipfilter/md5}

  publish_modules 'build 2' "${kernel_modules[@]}"
  scene 'The server has new builds of all three modules' \
    'Each download is compared with its published digest before it is installed. The files are' \
    'replaced; loading the new modules is left to the agent.'
  run kernel_state 1
  expect_status 0
  expect_log \
    '[KERNEL] check download norvak_ipfilter kernel MD5 success' \
    '[KERNEL] download kernel norvak_ipfilter success' \
    '[KERNEL] check download tessel_linux kernel MD5 success' \
    '[KERNEL] download kernel tessel_linux success' \
    '[KERNEL] check download quorin_linux kernel MD5 success' \
    '[KERNEL] download kernel quorin_linux success'
  for module in "${kernel_modules[@]}"; do
    expect_same_file "$install/$module.ko" "$(published_module "$module")"
  done

  scene 'Nothing to do' 'All three modules are current. Unlike the other types, type 1 exits with 0.'
  run kernel_state 1
  expect_status 0
  expect_log \
    "[KERNEL] don't need to download norvak_ipfilter" \
    "[KERNEL] don't need to download tessel_linux" \
    "[KERNEL] don't need to download quorin_linux"

  publish_modules 'build 3' tessel_linux
  edit_digest tessel_linux "$(md5_text <<<'another file')"
  rm "$install/tessel_linux.ko"
  scene 'The server publishes a wrong digest' \
    'norvak_publish refuses such a digest: somebody edited the file. tessel_linux.ko is missing on the' \
    'host, and its download is refused. tessel_linux and quorin_linux only work together, so the' \
    'updater removes quorin_linux.ko too.'
  run kernel_state 1
  expect_status 255
  expect_log \
    "[KERNEL] don't need to download norvak_ipfilter" \
    '[KERNEL] check download tessel_linux kernel MD5 false' \
    '[KERNEL] download kernel tessel_linux failed'
  expect_same_file "$install/norvak_ipfilter.ko" "$(published_module norvak_ipfilter)"
  expect_missing "$install/tessel_linux.ko"
  expect_missing "$install/quorin_linux.ko"

  publish rollback
  scene 'The server is fixed' \
    '"norvak_publish rollback" serves the release before the mistake again. The next run installs' \
    'both modules.'
  run kernel_state 1
  expect_status 0
  expect_log \
    "[KERNEL] don't need to download norvak_ipfilter" \
    '[KERNEL] check download tessel_linux kernel MD5 success' \
    '[KERNEL] download kernel tessel_linux success' \
    '[KERNEL] check download quorin_linux kernel MD5 success' \
    '[KERNEL] download kernel quorin_linux success'
  for module in "${kernel_modules[@]}"; do
    expect_same_file "$install/$module.ko" "$(published_module "$module")"
  done
}

web_server_scenes() {
  heading "type 2: the agent's web server program"

  publish_web_server 1.24.0
  scene 'The server has another build' \
    'The updater installs the program like any other file and leaves its permissions to the' \
    'administrator, so here the demo makes it executable.'
  run web_server_state 2 1.24.0 64-bit
  expect_status 0
  expect_log '[NGINX]new version is exist, download now' '[NGINX] download nginx success'
  expect_same_file "$install/nginx/bin/nginx" "$server_root/nginx_new/x64/1.24.0/nginx"
  expect_same_file "$install/nginx/md5" "$server_root/nginx_new/x64/1.24.0/md5"
  expect_agent untouched
  afterwards 'the demo runs chmod 0755 nginx/bin/nginx' chmod 0755 "$install/nginx/bin/nginx"

  scene 'Nothing to do' 'The log then says "failed" too; the line before it gives the reason.'
  run web_server_state 2 1.24.0 64-bit
  expect_status 255
  expect_log '[NGINX]is not new version' '[NGINX] download nginx failed'
}

rule_scenes() {
  heading 'type 3: the protection rules'

  publish_rules 'second edition'
  scene 'The server has other rules' \
    'The updater installs them and stops the agent, so that it loads them when it starts again.' \
    'Starting it is left to the administrator, or to a supervisor.'
  run rule_state 3
  expect_status 0
  expect_log \
    'download_tarn_rules_file: check download rule MD5 success' \
    '[RULES] update tarn rules success'
  expect_agent killed
  expect_same_file "$install/template/norvak_default_rule.xml" \
    "$server_root/tarn_rule/norvak_default_rule.xml"
  afterwards 'the demo starts the agent, which records the digest of its rules' start_agent

  scene 'Nothing to do' 'The agent runs with the published rules.'
  run rule_state 3
  expect_status 255
  expect_requests 'GET /tarn_rule/md5'
  expect_log "[RULES] don't need to update"
  expect_agent untouched
}

norvak_host_scenes() {
  heading 'norvak_host: the state of the host'

  publish_rules 'third edition'
  scene 'What would the updates do?' \
    'norvak_host preview asks the server as the updater does, and changes nothing.'
  run_norvak_host preview
  expect_status 0
  expect_output 'soft +would refuse ' 'kernel +nothing to do ' 'rules +would install '

  scene 'What became of the last runs?' \
    'norvak_host status tells "nothing to do" from "failed". It exits with 1, a warning, because the' \
    'last run of type 0 was refused.'
  run_norvak_host status
  expect_status 1
  expect_output 'soft +refused ' 'kernel +updated ' 'nginx +nothing-to-do ' 'rules +nothing-to-do ' \
    'agent: running'
}

conclusion() {
  heading "all $scenes scenes ended as expected"
  printf 'scene  %-33s exit\n' command
  printf '%s\n' "${summary[@]}"
  cat <<'END'

Next steps:
   ./scripts/demo.sh --keep   the demo again, then a shell in its sandbox
   ./scripts/test.sh          all tests
   README.md                  what to know before you run the updater on a host
   docs/log-messages.md       every log line, its meaning, what to do
   docs/monitoring.md         norvak_host with Nagios, Prometheus and cron
END
}

# script gives the shell a new terminal: on the old one the sandbox's process ids prevent job
# control.
keep_shell() {
  heading 'a shell in the sandbox'
  cat <<END
You are in the sample agent's install directory. Leaving the shell (exit, or Ctrl-D) removes
everything. Some things to try:

   cat runlog/update.log; cat config.xml
   norvak_update 1; echo \$?; norvak_host status kernel
   norvak_publish releases ../server/tree; norvak_publish check ../server/tree
   tail ../server/access.log         what was requested
   ps -ef                            the agent and nginx (if ps is installed)
   norvak_publish nginx ../server/tree --version 1.24.0 --word-size 64 --identification new \\
     "\$(command -v nginx)"; norvak_update 2 1.24.0 64-bit; echo \$?

END
  cd "$install"
  PATH=$programs:$PATH HISTFILE='' \
    script --quiet --command "PS1='demo:\w\$ ' exec bash --noprofile --norc" /dev/null
}

prepare_host
introduction
agent_software_scenes
kernel_module_scenes
web_server_scenes
rule_scenes
norvak_host_scenes
conclusion
if [[ $keep ]]; then
  keep_shell
fi

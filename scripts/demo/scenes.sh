#!/usr/bin/env bash
# The scenes of the demo, for sandbox.sh.
#
# Usage: scenes.sh PROGRAM SCRATCH_FOLDER
#
# Lays out a sample agent and an update server in the scratch folder, runs PROGRAM on them and checks
# what it shows. The first thing that is not as announced ends the demo with status 1.
set -euo pipefail
demo=$(dirname "${BASH_SOURCE[0]}")
. "$demo/../lib.sh"
. "$demo/show.sh"
. "$demo/agent.sh"
. "$demo/server.sh"

program=$1
scratch=$2
install=$scratch/norvak_agent
readonly program scratch install

# What the program finds on this host; its proxy settings must not stand between it and nginx.
prepare() {
  umask 022
  export LC_ALL=C no_proxy=127.0.0.1
  start_server
  lay_out_agent norvak3.1.9
  mkdir "$scratch/var_log"
  printf '%s\n' "$install" >"$scratch/var_log/version_control"
  mount --bind "$scratch/var_log" /var/log
  start_agent
}

show_set_up() {
  heading "the set-up"
  {
    printf 'install directory  %s (first line of /var/log/version_control)\n' "$install"
    printf 'update server      %s (nginx)\n' "$server_url"
    printf 'kernel modules     %s\n' "$(kernel_directory)"
  } | block ''
}

agent_software_scenes() {
  heading "type 0: the agent software"
  publish_agent norvak3.1.10

  scene 'An automatic run: the server offers a newer agent.'
  run soft_state 0 0
  expect_status 0
  expect_log '[SOFT] update norvak agent success' ''
  expect_agent restarted
  expect_setting version norvak3.1.10
  expect_same_file "$install/norvak_agent" "$server_package/norvak_agent"

  scene 'The same run again: the installed agent is as new as the offered one.'
  run soft_state 0 0
  expect_status 255
  expect_log '[SOFT] norvak is not need to update, or check new version fail' ''
  expect_agent untouched

  scene 'A manual run, which asks neither the configuration nor for the version. The package' \
    'brings a new config.xml: the update type is carried over into it, and no version is known.'
  publish_agent norvak3.1.11
  set_setting update_type 1
  run soft_state 0 1
  expect_status 0
  expect_log '[SOFT] update norvak agent success' ''
  expect_agent restarted
  expect_setting update_type 1
  expect_setting version ''
  expect_same_file "$install/norvak_agent" "$server_package/norvak_agent"

  scene 'An automatic run is refused, because the configuration says manual (update_type 1).'
  run soft_state 0 0
  expect_status 255
  expect_log '[SOFT] update type is manual, but this is autoupdate subroutine' ''
  expect_agent untouched
}

kernel_module_scenes() {
  local module
  heading "type 1: the kernel modules"
  for module in "${kernel_modules[@]}"; do
    publish_module "$module" 'build 2'
  done

  scene 'The server has a newer build of all three modules.'
  run kernel_state 1
  expect_status 0
  expect_log \
    '[KERNEL] check download norvak_ipfilter kernel MD5 success' \
    '[KERNEL] download kernel norvak_ipfilter success' \
    '[KERNEL] check download tessel_linux kernel MD5 success' \
    '[KERNEL] download kernel tessel_linux success' \
    '[KERNEL] check download quorin_linux kernel MD5 success' \
    '[KERNEL] download kernel quorin_linux success' ''
  for module in "${kernel_modules[@]}"; do
    expect_same_file "$install/$module.ko" "$(published_module "$module")"
  done

  scene 'The same run again: all three are current.'
  run kernel_state 1
  expect_status 0
  expect_log \
    "[KERNEL] don't need to download norvak_ipfilter" \
    "[KERNEL] don't need to download tessel_linux" \
    "[KERNEL] don't need to download quorin_linux" ''

  scene 'tessel_linux.ko is gone from the host, and the server publishes a wrong digest for it. As' \
    'the two engine modules go only together, quorin_linux.ko is cleared away.'
  publish_module tessel_linux 'build 3' "$(md5_text <<<'another file')"
  rm "$install/tessel_linux.ko"
  run kernel_state 1
  expect_status 255
  expect_log \
    "[KERNEL] don't need to download norvak_ipfilter" \
    '[KERNEL] check download tessel_linux kernel MD5 false' \
    '[KERNEL] download kernel tessel_linux failed' ''
  expect_same_file "$install/norvak_ipfilter.ko" "$(published_module norvak_ipfilter)"
  expect_missing "$install/tessel_linux.ko"
  expect_missing "$install/quorin_linux.ko"

  scene 'The server is mended: the next run installs both again.'
  publish_module tessel_linux 'build 3'
  run kernel_state 1
  expect_status 0
  expect_log \
    "[KERNEL] don't need to download norvak_ipfilter" \
    '[KERNEL] check download tessel_linux kernel MD5 success' \
    '[KERNEL] download kernel tessel_linux success' \
    '[KERNEL] check download quorin_linux kernel MD5 success' \
    '[KERNEL] download kernel quorin_linux success' ''
  for module in "${kernel_modules[@]}"; do
    expect_same_file "$install/$module.ko" "$(published_module "$module")"
  done
}

web_server_scenes() {
  heading "type 2: the agent's web server program"
  publish_web_server 1.24.0

  scene 'The server has another build. It is installed without the right to execute it.'
  run web_server_state 2 1.24.0 64-bit
  expect_status 0
  expect_log '[NGINX]new version is exist, download now' '[NGINX] download nginx success' ''
  expect_same_file "$install/nginx/bin/nginx" "$server_root/nginx_new/x64/1.24.0/nginx"
  expect_same_file "$install/nginx/md5" "$server_root/nginx_new/x64/1.24.0/md5"
  expect_agent untouched

  scene 'The same run again: nothing new, which counts as a failed run.'
  run web_server_state 2 1.24.0 64-bit
  expect_status 255
  expect_log '[NGINX]is not new version' '[NGINX] download nginx failed' ''
}

rule_scenes() {
  heading "type 3: the protection rules"
  publish_rules 'second edition'

  scene 'The server has other rules. The agent is killed and left to its owner to start.'
  run rule_state 3
  expect_status 0
  expect_log \
    'download_tarn_rules_file: check download rule MD5 success' \
    '[RULES] update tarn rules success' ''
  expect_agent killed
  expect_same_file "$install/template/norvak_default_rule.xml" \
    "$server_root/tarn_rule/norvak_default_rule.xml"

  scene 'The agent, started again, has recorded the digest of its rules: nothing to do, which' \
    'counts as a failed run.'
  start_agent
  run rule_state 3
  expect_status 255
  expect_log "[RULES] don't need to update" ''
  expect_agent untouched
}

prepare
show_set_up
agent_software_scenes
kernel_module_scenes
web_server_scenes
rule_scenes
stop_agent
stop_server
heading "all $scenes scenes went as announced"

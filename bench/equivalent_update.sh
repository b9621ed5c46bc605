#!/bin/sh
# An update as an administrator would script it with curl, md5sum, sed, cp and tar, to compare the
# updater with. A successful run has the same effects and log lines, except that the kernel version
# record has another form.
#
# Usage: equivalent_update.sh TYPE [VERSION_DIR]
set -eu

agent=$(sed -n 1p /var/log/version_control)
config=$agent/config.xml

# $1: name of a setting
setting() {
  sed -n "s/.*<var name=\"$1\" value=\"\([^\"]*\)\".*/\1/p" "$config"
}

# $1: name, $2: value
set_setting() {
  sed -i "s/\(<var name=\"$1\" value=\"\)[^\"]*/\1$2/" "$config"
}

log() {
  printf '[%s]\t\t%s\n' "$(date '+%F %T')" "$1" >>"$agent/runlog/update.log"
}

# $1: URL, $2: file
fetch() {
  rm -f "$2"
  curl -s -4 -o "$2" "$1"
}

# $1: file
digest() {
  md5sum "$1" | sed 's/ .*//'
}

# $1: source, $2: target
move() {
  rm -f "$2"
  cp "$1" "$2"
  rm "$1"
}

# $1: version, $2: version. Whether the first is newer, by the numbers after the six-character prefix.
is_newer() {
  left=${1#??????}.
  right=${2#??????}.
  while [ -n "$left" ] && [ -n "$right" ]; do
    if [ "${left%%.*}" -ne "${right%%.*}" ]; then
      [ "${left%%.*}" -gt "${right%%.*}" ]
      return
    fi
    left=${left#*.}
    right=${right#*.}
  done
  return 1
}

stop_agent() {
  kill -KILL "$(sed -n 1p "$agent/norvak.pid")"
  rm "$agent/norvak.pid"
}

update_soft() {
  work=$agent/update_norvak_soft
  mkdir -p "$work/data"
  url=$(setting update_host)
  fetch "$url/norvak/norvak_agent_new_version.txt" "$work/new_version"
  new=$(sed -n 1p "$work/new_version")
  is_newer "$new" "$(setting version)"
  type=$(setting update_type)
  touch "$agent/update"
  fetch "$url/norvak/x64/nvupdate.tar" "$work/package.tar"
  stop_agent
  "$agent/tool/tar" xvf "$work/package.tar" -C "$work/data" >/dev/null
  cd "$work/data"
  chmod 544 update
  ./update >/dev/null
  set_setting version "$new"
  set_setting update_type "$type"
  rm "$agent/update"
  "$agent/startup.sh"
  log '[SOFT] update norvak agent success'
}

update_kernel() {
  work=$agent/update_norvak_kernel
  mkdir "$work"
  url=$(setting kernel_update_host)/kernels/centos/x64/$(uname -r)
  uname -r >"$agent/runlog/kernel_version"
  for module in norvak_ipfilter tessel_linux quorin_linux; do
    fetch "$url/$module/md5" "$work/md5"
    published=$(sed -n 1p "$work/md5")
    [ "$(digest "$agent/$module.ko")" != "$published" ]
    fetch "$url/$module/$module.ko" "$work/kernel"
    [ "$(digest "$work/kernel")" = "$published" ]
    log "[KERNEL] check download $module kernel MD5 success"
    move "$work/kernel" "$agent/$module.ko"
    log "[KERNEL] download kernel $module success"
  done
}

# $1: VERSION_DIR
update_nginx() {
  work=$agent/update_norvak_nginx
  mkdir "$work"
  url=$(setting nginx_update_host)/nginx_new/x64/$1
  fetch "$url/md5" "$work/md5"
  [ "$(sed -n 1p "$work/md5")" != "$(sed -n 1p "$agent/nginx/md5")" ]
  log '[NGINX]new version is exist, download now'
  fetch "$url/nginx" "$work/nginx"
  [ "$(head -c 4 "$work/nginx" | tail -c 3)" = ELF ]
  move "$work/nginx" "$agent/nginx/bin/nginx"
  move "$work/md5" "$agent/nginx/md5"
  log '[NGINX] download nginx success'
}

update_rules() {
  work=$agent/update_norvak_rule
  mkdir "$work"
  [ -e "$agent/quorin_linux.ko" ] && [ -e "$agent/tessel_linux.ko" ]
  url=$(setting kernel_update_host)/tarn_rule
  fetch "$url/md5" "$work/rule_md5"
  published=$(sed -n 1p "$work/rule_md5")
  [ "$published" != "$(sed -n 1p "$agent/template/system_rule.dat")" ]
  fetch "$url/norvak_default_rule.xml" "$work/rule"
  [ "$(digest "$work/rule")" = "$published" ]
  log 'download_tarn_rules_file: check download rule MD5 success'
  move "$work/rule" "$agent/template/norvak_default_rule.xml"
  stop_agent
  log '[RULES] update tarn rules success'
}

case $1 in
  0) update_soft ;;
  1) update_kernel ;;
  2) update_nginx "$2" ;;
  3) update_rules ;;
esac
rm -r "$work"
printf '\n' >>"$agent/runlog/update.log"

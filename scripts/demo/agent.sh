# shellcheck shell=bash
# The sample agent: its install directory, its settings and its process. Sourced by scenes.sh.

kernel_modules=(norvak_ipfilter tessel_linux quorin_linux)

# $1: the installed version
create_agent() {
  local module
  mkdir -p "$install"/{runlog,template,tool,nginx/bin}
  cp "$demo"/agent/{startup.sh,norvak_agent} "$install"
  write_config "$install/config.xml" "$1" 0
  ln -s "$(command -v tar)" "$install/tool/tar"
  : >"$install/runlog/update.log"
  for module in "${kernel_modules[@]}"; do
    printf '%s, build 1\n' "$module" >"$install/$module.ko"
  done
  printf '<rules edition="first edition"/>\n' >"$install/template/norvak_default_rule.xml"
  install -m 0755 "$(command -v nginx)" "$install/nginx/bin/nginx"
  printf 'older build\n' >>"$install/nginx/bin/nginx"
  printf '1.22.1\n' >"$install/nginx/md5"
  mark_distribution
}

# The agent's installer marks the distribution family with an empty file; CentOS has no marker.
mark_distribution() {
  distribution=centos
  case $(grep -sE '^ID(_LIKE)?=' /etc/os-release) in
    *ubuntu*) distribution=ubuntu ;;
    *suse*) distribution=suse ;;
  esac
  if [[ $distribution != centos ]]; then
    : >"$install/$distribution"
  fi
}

# $1: file; $2: version; $3: update type
write_config() {
  cat >"$1" <<END
<?xml version="1.0" encoding="UTF-8"?>
<norvak>
  <Process>
    <Data>
      <!-- 0: automatic and manual updates; 1: manual updates only -->
      <var name="update_type" value="$3"/>
      <var name="version" value="$2"/>
      <var name="update_host" value="$server_url"/>
      <var name="kernel_update_host" value="$server_url"/>
      <var name="nginx_update_host" value="$server_url"/>
    </Data>
  </Process>
</norvak>
END
}

setting() {
  sed -n "s/.*name=\"$1\" value=\"\([^\"]*\)\".*/\1/p" "$install/config.xml"
}

set_setting() {
  sed -i "s/\(name=\"$1\" value=\)\"[^\"]*\"/\1\"$2\"/" "$install/config.xml"
}

start_agent() {
  "$install/startup.sh"
}

# The agent's process id, or nothing if there is no pid file.
agent_pid() {
  if [[ -e $install/norvak.pid ]]; then
    cat "$install/norvak.pid"
  fi
}

process_is_gone() {
  ! kill -0 "$1" 2>/dev/null
}

md5_text() {
  md5sum | cut -c 1-32
}

# shellcheck shell=bash
# The update server: an nginx of its own on 127.0.0.1, and the tree that it serves. Sourced by
# scenes.sh.

server_root=
server_url=
server_pid=
server_package=   # the unpacked form of the published agent package

start_server() {
  local port tries
  server_root=$scratch/server/tree
  server_package=$scratch/package
  mkdir -p "$server_root" "$server_package"
  printf '%s\n' "$scratch" >"$server_root/owner"
  # Below the range that the kernel gives to outgoing connections.
  for ((tries = 0; tries < 10; ++tries)); do
    port=$((20000 + RANDOM % 12000))
    write_nginx_conf "$port"
    nginx -p "$scratch/server/" -c nginx.conf >>"$scratch/server/output" 2>&1 &
    server_pid=$!
    if wait_until server_settled "$port" && server_is_ours "$port"; then
      server_url=http://127.0.0.1:$port
      return
    fi
    stop_server
  done
  cat "$scratch/server/output" >&2
  fail 'nginx does not start'
}

# nginx stays in the foreground as one process: its id is the one to stop. Started as root, also of
# a user namespace, it would give its folders to a user that may not exist there.
write_nginx_conf() {
  cat >"$scratch/server/nginx.conf" <<END
daemon off;
master_process off;
user root root;
pid nginx.pid;
error_log stderr;
events {}
http {
  access_log off;
  client_body_temp_path temp;
  proxy_temp_path temp;
  fastcgi_temp_path temp;
  uwsgi_temp_path temp;
  scgi_temp_path temp;
  server {
    listen 127.0.0.1:$1;
    root tree;
  }
}
END
}

server_settled() {
  process_is_gone "$server_pid" || server_is_ours "$1"
}

# Another program may have taken the port.
server_is_ours() {
  (
    exec 3<>"/dev/tcp/127.0.0.1/$1"
    printf 'GET /owner HTTP/1.0\r\n\r\n' >&3
    grep -qx "$scratch" <&3
  ) 2>/dev/null
}

stop_server() {
  kill "$server_pid" 2>/dev/null || true  # it may have failed by itself
  wait "$server_pid" || true
}

# $1: version. The package's own config.xml asks for automatic updates.
publish_agent() {
  local folder=$server_root/norvak/x86
  if [[ $(uname -m) == x86_64 ]]; then
    folder=$server_root/norvak/x64
  fi
  cp "$demo/package/update" "$demo/agent/norvak_agent" "$server_package"
  printf '# %s\n' "$1" >>"$server_package/norvak_agent"
  write_config "$server_package/config.xml" '' 0
  mkdir -p "$folder"
  tar -C "$server_package" -cf "$folder/nvupdate.tar" update norvak_agent config.xml
  printf '%s\n' "$1" >"$server_root/norvak/norvak_agent_new_version.txt"
}

# The server's folder for the modules of this host: distribution family with the kernel's flavour,
# processor family, and the leading part of the kernel release in capitals.
kernel_directory() {
  local family flavour='' arch=x64 release version
  family=$(host_family)
  release=$(uname -r | tr '[:lower:]' '[:upper:]')
  version=$release
  case $family/$release in
    centos/*XEN*) flavour=xen ;;
    centos/*PAE*) flavour=pae ;;
    suse/*DEFAULT*) flavour=default ;;
    suse/*DESKTOP*) flavour=desktop ;;
    suse/*PAE*) flavour=pae ;;
    ubuntu/*SERVER*) flavour=server ;;
    ubuntu/*) flavour=generic ;;
  esac
  if [[ $family == suse && -n $flavour ]]; then
    version=${release%%"-${flavour^^}"*}
  elif [[ $family != suse && $release =~ ^([0-9]*[^0-9]){3}[0-9]* ]]; then
    version=${BASH_REMATCH[0]}
  fi
  case $(uname -m) in
    i386 | i686) arch=x86 ;;
  esac
  printf '/kernels/%s/%s/%s\n' "$family${flavour:+-$flavour}" "$arch" "$version"
}

# $1: module
published_module() {
  printf '%s/%s/%s.ko\n' "$server_root$(kernel_directory)" "$1" "$1"
}

# $1: module; $2: build; $3: digest to publish, by default the right one
publish_module() {
  local file
  file=$(published_module "$1")
  mkdir -p "${file%/*}"
  printf '%s, %s\n' "$1" "$2" >"$file"
  printf '%s\n' "${3:-$(md5_text <"$file")}" >"${file%/*}/md5"
}

# $1: version
publish_web_server() {
  local folder=$server_root/nginx_new/x64/$1
  mkdir -p "$folder"
  cp "$(command -v nginx)" "$folder/nginx"
  printf '%s\n' "$1" >"$folder/md5"
}

# $1: edition
publish_rules() {
  local folder=$server_root/tarn_rule
  mkdir -p "$folder"
  printf '<rules edition="%s"/>\n' "$1" >"$folder/norvak_default_rule.xml"
  md5_text <"$folder/norvak_default_rule.xml" >"$folder/md5"
}

# shellcheck shell=bash
# The update server: nginx on 127.0.0.1, and the tree that it serves. Sourced by scenes.sh.

server_root=$scratch/server/published
server_package=$scratch/package  # the unpacked form of the published agent package
server_url=
server_requests=0  # how many lines of its log earlier runs have added

start_server() {
  local port tries pid
  mkdir -p "$server_root" "$server_package"
  printf '%s\n' "$scratch" >"$server_root/owner"
  for ((tries = 0; tries < 10; ++tries)); do
    port=$((20000 + RANDOM % 12000))  # below the range of outgoing connections
    sed "s/@PORT@/$port/" "$project/tests/system/harness/nginx.conf" >"$scratch/server/nginx.conf"
    nginx -p "$scratch/server/" -c nginx.conf >>"$scratch/server/output" 2>&1 &
    pid=$!
    if wait_until server_settled "$pid" "$port" && server_is_ours "$port"; then
      server_url=http://127.0.0.1:$port
      return
    fi
    kill "$pid" 2>/dev/null || true  # it may have failed by itself
  done
  cat "$scratch/server/output" >&2
  fail 'nginx does not start'
}

# $1: process id; $2: port
server_settled() {
  process_is_gone "$1" || server_is_ours "$2"
}

# Another program may have taken the port.
server_is_ours() {
  request "$1" /owner | grep -qx "$scratch"
}

# $1: port; $2: path
request() {
  (
    exec 3<>"/dev/tcp/127.0.0.1/$1"
    printf 'GET %s HTTP/1.0\r\n\r\n' "$2" >&3
    cat <&3
  ) 2>/dev/null
}

# Prints the requests since the last call.
new_requests() {
  local log=$scratch/server/access.log last=/requests-before-line-$server_requests
  # nginx logs a request after it has been answered, one by one: this one comes last.
  request "${server_url##*:}" "$last" >/dev/null
  wait_until grep -qx "GET $last" "$log"
  tail -n "+$((server_requests + 1))" "$log" | grep -vx "GET $last" || true
}

forget_requests() {
  new_requests >/dev/null
  server_requests=$(wc -l <"$scratch/server/access.log")
}

# $1: version. The package's own config.xml asks for automatic updates.
publish_agent() {
  local processor
  cp "$demo/package/update" "$demo/agent/norvak_agent" "$server_package"
  printf '# %s\n' "$1" >>"$server_package/norvak_agent"
  write_config "$server_package/config.xml" '' 0
  for processor in x64 x86; do
    mkdir -p "$server_root/norvak/$processor"
    tar -C "$server_package" -cf "$server_root/norvak/$processor/nvupdate.tar" \
      update norvak_agent config.xml
  done
  printf '%s\n' "$1" >"$server_root/norvak/norvak_agent_new_version.txt"
}

# $1: module; needs kernel_folder
published_module() {
  printf '%s/%s/%s.ko\n' "$server_root$kernel_folder" "$1" "$1"
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

# shellcheck shell=bash
# The update server: nginx on 127.0.0.1, and the tree that it serves, which norvak_publish fills.
# Sourced by scenes.sh.

server_tree=$scratch/server/tree
server_root=$scratch/server/published  # nginx's document root: the link to the current release
server_package=$scratch/package        # the files of the published agent package
server_url=
server_requests=0  # how many lines of its log earlier runs have added

start_server() {
  local port tries pid
  mkdir -p "$server_tree" "$server_package" "$scratch/server/more" "$scratch/modules"
  ln -s tree/current "$server_root"
  printf 'location = /owner { access_log off; return 200 "%s\\n"; }\n' "$scratch" \
    >"$scratch/server/more/owner.conf"
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

# $1: command of norvak_publish; then its arguments behind the tree
publish() {
  "$programs/norvak_publish" "$1" "$server_tree" --quiet "${@:2}"
}

# $1: version. The package's own config.xml asks for automatic updates.
publish_agent() {
  local package=$scratch/package.tar
  cp "$demo/agent/norvak_agent" "$server_package"
  printf '# %s\n' "$1" >>"$server_package/norvak_agent"
  write_config "$server_package/config.xml" '' 0
  printf 'file\t%s\troot\troot\t%s\n' 755 norvak_agent 644 config.xml >"$scratch/manifest"
  "$programs/norvak_publish" package "$package" --version "$1" --payload "$server_package" \
    --manifest "$scratch/manifest" --replace-config
  publish soft --version "$1" --x64 "$package" --x86 "$package"
}

# $1: module; needs kernel_folder
published_module() {
  printf '%s/%s/%s.ko\n' "$server_root$kernel_folder" "$1" "$1"
}

# $1: build; then the modules. They hold nothing but the kernel for which they were built.
publish_modules() {
  local build=$1 module files=()
  shift
  for module in "$@"; do
    files+=("$scratch/modules/$module.ko")
    g++ -x c++ -c -o "${files[-1]}" - <<END
__attribute__((section(".modinfo"), used)) static const char vermagic[] =
    "vermagic=$(uname -r) SMP mod_unload";
__attribute__((used)) static const char build[] = "$module, $build";
END
  done
  publish kernel --distribution "$distribution" "${files[@]}"
}

# What norvak_publish would not do. $1: module; $2: digest
edit_digest() {
  local list
  list=$(published_module "$1")
  list=${list%/*}/md5
  chmod u+w "$list"
  printf '%s\n' "$2" >"$list"
}

# $1: version
publish_web_server() {
  publish nginx --version "$1" --word-size 64 --identification "$1" "$(command -v nginx)"
}

# $1: edition
publish_rules() {
  printf '<rules edition="%s"/>\n' "$1" >"$scratch/rules.xml"
  publish rules "$scratch/rules.xml"
}

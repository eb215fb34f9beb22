#!/bin/sh
# Three network namespaces in a row, to try a chip in the kernel with. As root; `examples/three-hosts.sh down` takes
# them away.
#
#   inside 10.20.0.10 --- lan [box] wan --- 203.0.113.9 outside
#
# The box forwards, and translates nothing by itself. Who is outside reaches 198.51.100.0/24 by the box; inside, a web
# server shows this folder at port 8000.
set -e

if [ "${1-}" = down ]; then
   for host in inside box outside; do
      ip netns pids $host | xargs -r kill
      ip netns del $host
   done
   exit
fi

mountpoint -q /sys/fs/bpf || mount -t bpf bpf /sys/fs/bpf
for host in inside box outside; do
   ip netns add $host
   ip -netns $host link set lo up
done
ip -netns box -batch - <<END
link add lan type veth peer name eth0 netns inside
link add wan type veth peer name eth0 netns outside
address add 10.20.0.1/24 dev lan
address add 203.0.113.1/24 dev wan
link set lan up
link set wan up
END
ip -netns inside -batch - <<END
address add 10.20.0.10/24 dev eth0
link set eth0 up
route add default via 10.20.0.1
END
ip -netns outside -batch - <<END
address add 203.0.113.9/24 dev eth0
link set eth0 up
route add 198.51.100.0/24 via 203.0.113.1
END
ip netns exec box sh -c 'echo 1 >/proc/sys/net/ipv4/ip_forward'
ip netns exec inside python3 -m http.server 8000 --directory "$(dirname "$0")" >/dev/null 2>&1 &
until ip netns exec inside python3 -c 'from socket import *; create_connection(("10.20.0.10", 8000))' 2>/dev/null; do
   kill -0 $!
done

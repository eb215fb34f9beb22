#!/bin/sh
# A network namespace, box, that translates what leaves it by wan: a NAT to try --follow-conntrack with. As root.
# `ip netns del box` takes it away.
set -e

ip netns add box
ip -netns box -batch - <<END
link set lo up
link add wan type veth peer name world
address add 10.0.0.1/32 dev lo
address add 198.51.100.1/24 dev wan
link set wan up
link set world up
route add default dev wan
END
ip netns exec box nft -f - <<END
table ip nat {
   chain leaving {
      type nat hook postrouting priority srcnat
      oifname "wan" masquerade
   }
}
END

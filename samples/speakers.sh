# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# speakers.sh: nodes, cables and one function per protocol speaker, for record.sh.
#
# record.sh sources it inside a sealed world (own network, mount, process and host-name namespaces with
# an empty /run), so nothing here cleans up: the kernel ends every process and removes every interface
# when the sealed shell ends. Speakers start in the background and log below $WORK/log.
# Every function that needs a place takes the node's name first. record.sh sets WORK and HERE.

# ---- nodes and cables ----

macs=0

# next_mac: sets $mac to the next address of this world, the same ones in every run.
next_mac() {
    macs=$((macs + 1))
    mac=$(printf '02:00:00:00:%02x:%02x' "$WORLD" "$macs")
}

# node NAME: a network namespace whose host name is NAME, so frames name nothing of this machine.
node() {
    ip netns add "$1"
    touch "$WORK/uts/$1"
    unshare --uts="$WORK/uts/$1" hostname "$1"
    ip -n "$1" link set lo up
}

# switch_node NAME: a node whose ports stay silent until a speaker talks on them.
switch_node() {
    node "$1"
    in_node "$1" sysctl -q -w net.ipv6.conf.default.disable_ipv6=1
}

in_node() {
    local name=$1
    shift
    ip netns exec "$name" nsenter --uts="$WORK/uts/$name" -- "$@"
}

# speak NODE LABEL COMMAND...: runs a speaker in the background.
speak() {
    local name=$1 label=$2
    shift 2
    in_node "$name" "$@" >"$WORK/log/$name-$label" 2>&1 </dev/null &
}

# cable NODE_A IF_A NODE_B IF_B. Checksums are computed before the frame leaves: there is no hardware to do it.
cable() {
    local mac mac_a
    next_mac; mac_a=$mac
    next_mac
    ip -n "$1" link add "$2" address "$mac_a" type veth peer name "$4" netns "$3" address "$mac"
    in_node "$1" ethtool -K "$2" tx off tso off gso off gro off txvlan off rxvlan off >/dev/null 2>&1
    in_node "$3" ethtool -K "$4" tx off tso off gso off gro off txvlan off rxvlan off >/dev/null 2>&1
    ip -n "$1" link set "$2" up
    ip -n "$3" link set "$4" up
}

# host NODE IPV4/LEN IPV6/LEN IPV4_GATEWAY: addresses on eth0.
host() {
    ip -n "$1" addr add "$2" dev eth0
    ip -n "$1" addr add "$3" dev eth0
    ip -n "$1" route add default via "$4"
}

# ---- switches ----

# ovs NODE COMMAND...: ovs-vsctl or ovs-appctl against the switch of NODE.
ovs() {
    local name=$1
    shift
    in_node "$name" env OVS_RUNDIR="$WORK/ovs/$name" "$@"
}

# vlan_switch NODE MAC: a userspace VLAN switch (bridge br0), for a kernel without 802.1Q or bonding.
vlan_switch() {
    local dir=$WORK/ovs/$1
    mkdir -p "$dir"
    ovsdb-tool create "$dir/conf.db" /usr/share/openvswitch/vswitch.ovsschema
    ovs "$1" ovsdb-server "$dir/conf.db" --remote="punix:$dir/db.sock" --pidfile --detach \
        --log-file="$dir/ovsdb.log" 2>/dev/null
    ovs "$1" ovs-vsctl --no-wait init
    ovs "$1" ovs-vswitchd "unix:$dir/db.sock" --pidfile --detach --log-file="$dir/vswitchd.log" 2>/dev/null
    ovs "$1" ovs-vsctl add-br br0 -- set bridge br0 datapath_type=netdev "other_config:hwaddr=\"$2\""
}

# access_port NODE PORT VLAN, trunk_port NODE PORT
access_port() {
    ovs "$1" ovs-vsctl add-port br0 "$2" "tag=$3" -- set port "$2" other_config:rstp-port-admin-edge=true
}
trunk_port() {
    ovs "$1" ovs-vsctl add-port br0 "$2" vlan_mode=trunk trunks=100,200
}

# vlan_interface NODE VLAN: the switch's own routed interface vlanN.
vlan_interface() {
    local mac
    next_mac
    ovs "$1" ovs-vsctl add-port br0 "vlan$2" "tag=$2" -- set interface "vlan$2" type=internal "mac=\"$mac\""
    in_node "$1" sysctl -q -w "net.ipv6.conf.vlan$2.disable_ipv6=0"
    ip -n "$1" link set "vlan$2" up
}

# rstp NODE PRIORITY: the lower priority becomes the root and keeps talking.
rstp() {
    ovs "$1" ovs-vsctl set bridge br0 rstp_enable=true "other_config:rstp-priority=$2" \
        other_config:rstp-forward-delay=4
}

# lacp_bond NODE PORT PORT: one aggregation group, LACP at the fast rate (one frame a second).
lacp_bond() {
    ovs "$1" ovs-vsctl add-bond br0 bond0 "$2" "$3" lacp=active other_config:lacp-time=fast
}

# cfm NODE PORT MPID: continuity check messages of IEEE 802.1ag, one a second.
cfm() {
    ovs "$1" ovs-vsctl set interface "$2" "cfm_mpid=$3" other_config:cfm_interval=1000
}

# stp_bridge NODE PORT...: the kernel's bridge, root by priority, also querier for IGMP and MLD.
stp_bridge() {
    local name=$1 port
    shift
    ip -n "$name" link add br0 type bridge stp_state 1 priority 4096 hello_time 200 forward_delay 400 \
        mcast_snooping 1 mcast_querier 1 mcast_query_interval 1000 mcast_query_response_interval 200 \
        mcast_startup_query_interval 500
    for port in "$@"; do
        ip -n "$name" link set "$port" master br0
    done
    in_node "$name" sysctl -q -w net.ipv6.conf.br0.disable_ipv6=0
    ip -n "$name" link set br0 up
}

# ---- routing and neighbour protocols ----

# frr_router NODE DAEMON...: FRR with $HERE/frr/NODE.conf, its sockets below /run/frr/NODE.
frr_router() {
    local name=$1 daemon
    shift
    install -d -o frr -g frr "/run/frr/$name"
    for daemon in zebra "$@"; do
        in_node "$name" "/usr/lib/frr/$daemon" -d -N "$name" -f /dev/null --log "file:$WORK/log/$name-$daemon" \
            >"$WORK/log/$name-$daemon-start" 2>&1 </dev/null || echo "  $name: $daemon did not start" >&2
    done
    in_node "$name" vtysh -N "$name" -f "$HERE/frr/$name.conf" >"$WORK/log/$name-vtysh" 2>&1 ||
        { echo "  $name: configuration not taken whole:" >&2; cat "$WORK/log/$name-vtysh" >&2; }
}

# vrrp_interfaces NODE GROUP_HEX IPV4 IPV6: the virtual router's MAC addresses (RFC 5798, 7.3) on eth0. Host
# prefixes, or the node would route the whole network through them and lose its own neighbours.
vrrp_interfaces() {
    ip -n "$1" link add vrrp4 link eth0 address "00:00:5e:00:01:$2" type macvlan mode bridge
    ip -n "$1" link add vrrp6 link eth0 address "00:00:5e:00:02:$2" type macvlan mode bridge
    ip -n "$1" addr add "$3/32" dev vrrp4
    ip -n "$1" addr add "$4/128" dev vrrp6 nodad
    ip -n "$1" link set vrrp4 up
    ip -n "$1" link set vrrp6 up
}

# lldp NODE PORTS: PORTS as lldpd's interface pattern; transmits every 5 s.
lldp() {
    local name=$1
    printf 'configure system hostname %s\nconfigure system description "sample node %s"\n%s\n%s\n' \
        "$name" "$name" 'configure system interface pattern '"$2" 'configure lldp tx-interval 5' \
        >"$WORK/lldp-$name.conf"
    install -d /run/lldpd
    speak "$name" lldpd lldpd -d -u "/run/lldpd-$name.sock" -O "$WORK/lldp-$name.conf" -I "$2" \
        -S "sample node $name" -L /usr/sbin/lldpcli
}

# ---- address assignment ----

# dhcp_server NODE INTERFACE IPV4_NET FIRST LAST
dhcp_server() {
    local file=$WORK/dhcpd-$1-$2
    printf 'default-lease-time 40;\nmax-lease-time 40;\nauthoritative;\nsubnet %s netmask 255.255.255.0 {\n  range %s %s;\n}\n' \
        "$3" "$4" "$5" >"$file.conf"
    touch "$file.leases"
    speak "$1" "dhcpd-$2" dhcpd -4 -f -d -cf "$file.conf" -lf "$file.leases" --no-pid "$2"
}

# dhcp6_server NODE INTERFACE IPV6_NET/LEN FIRST LAST
dhcp6_server() {
    local file=$WORK/dhcpd6-$1-$2
    printf 'default-lease-time 40;\nmax-lease-time 40;\nsubnet6 %s {\n  range6 %s %s;\n}\n' "$3" "$4" "$5" >"$file.conf"
    touch "$file.leases"
    speak "$1" "dhcpd6-$2" dhcpd -6 -f -d -cf "$file.conf" -lf "$file.leases" --no-pid "$2"
}

# dhcp_client NODE -4|-6: asks on eth0, takes the address beside the fixed one and keeps renewing.
# The distribution's own script would touch the machine's resolver files.
dhcp_client() {
    local file=$WORK/dhclient$2-$1
    cat >"$file.sh" <<'SCRIPT'
#!/bin/sh
for address in $new_ip_address $new_ip6_address; do
    ip addr replace "$address/${new_ip6_prefixlen:-24}" dev "$interface"
done
exit 0
SCRIPT
    chmod +x "$file.sh"
    printf 'send host-name "%s";\ntimeout 20;\n' "$1" >"$file.conf"
    speak "$1" "dhclient$2" dhclient "$2" -d -cf "$file.conf" -lf "$file.leases" --no-pid -sf "$file.sh" eth0
}

# ---- access control ----

# port_control NODE PORT: an 802.1X authenticator that knows the user "h2" and asks again every 15 s.
port_control() {
    local file=$WORK/hostapd-$1
    printf '"h2" MD5 "sample"\n' >"$file.users"
    printf '%s\n' "interface=$2" driver=wired ieee8021x=1 eap_server=1 "eap_user_file=$file.users" \
        use_pae_group_addr=1 eap_reauth_period=15 >"$file.conf"
    speak "$1" hostapd hostapd "$file.conf"
}

# port_login NODE: the supplicant on eth0 that answers it.
port_login() {
    local file=$WORK/supplicant-$1.conf
    printf '%s\n' ap_scan=0 'network={' key_mgmt=IEEE8021X eap=MD5 "identity=\"$1\"" 'password="sample"' \
        eapol_flags=0 '}' >"$file"
    speak "$1" supplicant wpa_supplicant -D wired -i eth0 -c "$file"
}

# pppoe_server NODE INTERFACE, pppoe_discover NODE: the discovery stage only (PADI, PADO); no session follows.
pppoe_server() {
    speak "$1" pppoe-server pppoe-server -F -I "$2" -C "$1" -S sample
}
pppoe_discover() {
    speak "$1" pppoe-discovery pppoe-discovery -I eth0 -t 2
}

# ---- hosts ----

# greet NODE IPV4 IPV6 COUNT: echo requests of both families; neighbour discovery comes with them.
greet() {
    speak "$1" ping4 ping -n -c "$4" -i 2 "$2"
    speak "$1" ping6 ping -n -c "$4" -i 2 "$3"
}

# big_ping NODE IPV4: echo requests that do not fit a frame, so fragments.
big_ping() {
    speak "$1" bigping ping -n -c 2 -s 2000 "$2"
}

# solicit NODE: asks for routers.
solicit() {
    speak "$1" rdisc6 rdisc6 -1 -n eth0
}

# join_groups NODE IPV4_GROUP IPV6_GROUP SECONDS: joins both on eth0, leaves after SECONDS.
join_groups() {
    speak "$1" join python3 -c '
import socket, sys, time
index = socket.if_nametoindex("eth0")
v4 = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
v4.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
              socket.inet_aton(sys.argv[1]) + bytes(4) + index.to_bytes(4, sys.byteorder))
v6 = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
v6.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_JOIN_GROUP,
              socket.inet_pton(socket.AF_INET6, sys.argv[2]) + index.to_bytes(4, sys.byteorder))
time.sleep(float(sys.argv[3]))' "$2" "$3" "$4"
}

# old_multicast NODE: answers in the first MLD version and the second IGMP version, which know leaves.
old_multicast() {
    in_node "$1" sysctl -q -w net.ipv6.conf.eth0.force_mld_version=1 net.ipv4.conf.eth0.force_igmp_version=2
}

# arp_flood NODE TARGET PPS SECONDS
arp_flood() {
    speak "$1" arpflood python3 "$HERE/arp_flood.py" eth0 "$2" "$3" "$4"
}

# syn_flood NODE TARGET PPS SECONDS [--rand-source]: TCP SYNs to a closed port.
syn_flood() {
    local name=$1 target=$2 pps=$3 seconds=$4
    shift 4
    speak "$name" synflood hping3 "$@" -n -q -S -p 80 -c $((pps * seconds)) -i "u$((1000000 / pps))" "$target"
}

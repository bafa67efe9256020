# The packets kestcap's JSON lines hold, each once: a UDP tunnel's outer flow
# (stack UDP and the tunnel) counts again the packets its inner flows hold.
map(select(.stack | (length == 2 and .[0] == "UDP" and
                     (.[1] == "GTP" or .[1] == "VXLAN" or .[1] == "Teredo")) | not)
    | .orig_pkts + .resp_pkts) | add // 0

# kestcap's JSON lines as one line per flow, whichever way round and however
# many connections a time-out cut it into (a replay runs faster than the
# capture's own time, so it cuts fewer): the end points, the labels seen
# (application and stack) and the packets and bytes of both directions.
map({k: "\(.proto) \([ "\(."id.orig_h") \(."id.orig_p")", "\(."id.resp_h") \(."id.resp_p")" ] | sort | join(" "))",
     l: "\(.app)/\(.stack | join("."))",
     p: (.orig_pkts + .resp_pkts), b: (.orig_bytes + .resp_bytes)})
| group_by(.k)
| map("\(.[0].k) \(map(.l) | unique | join(",")) \(map(.p) | add) \(map(.b) | add)")
| .[]

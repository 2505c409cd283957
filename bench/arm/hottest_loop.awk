# SPDX-License-Identifier: MIT
# Of a disassembly (objdump -d -C --no-show-raw-insn), the innermost loop with the most instructions named by `wanted`,
# as source for an assembler. Its first line is a comment: how many of them work on 16 and on 8 bytes, and the function.
/^[0-9a-f]+ <.*>:$/ {
  name = $0
  sub(/^[0-9a-f]+ </, "", name)
  sub(/>:$/, "", name)
  split("", at)
  count = innermost = 0
  next
}
/^ *[0-9a-f]+:\t/ {
  address = $1
  sub(/:$/, "", address)
  sub(/^ *[0-9a-f]+:\t/, "")
  sub(/[ \t]*[@;].*/, "")
  text[++count] = $0
  at[address] = count
  # A branch back closes a loop. It is innermost when no loop ends between its two ends.
  if ($1 !~ /^b(eq|ne|cs|cc|hs|lo|mi|pl|vs|vc|hi|ls|ge|lt|gt|le)?(\.[nw])?$/ || !($2 in at)) next
  first = at[$2]
  if (first <= innermost) next
  innermost = count
  found = wide = narrow = 0
  for (i = first; i <= count; i++)
    if (index(text[i], wanted "\t") == 1) {
      found++
      if (text[i] ~ /\tq/) wide++
      if (text[i] ~ /\td/) narrow++
    }
  if (found <= most) next
  most = found
  best = "@ " wide " " narrow " " name "\nloop:\n"
  for (i = first; i < count; i++) best = best text[i] "\n"
  best = best $1 " loop\n"
}
END { gsub(/\.n\t/, "\t", best); gsub(/\.n loop/, " loop", best); printf "%s", best }

# The documents on their way into the reference.

# The README is one page of several there, so it needs a name of its own.
1s/^# rova umem$/# README/

# Links to headers lead to their pages.
s/](\([^)]*\/\)\([a-z_]*\.hp*\))/](@ref \2)/g

# Doxygen 1.9 does not find a document by a link that also names a section of it.
s/](\([^)#:]*\.md\)#[^)]*)/](\1)/g

# Doxygen 1.9 does not see bold around code.
s/\*\*`\([^`]*\)`\*\*/<b>`\1`<\/b>/g

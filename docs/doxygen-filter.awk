# Turns the headers' plain comments into those that Doxygen reads:
#   - a comment above a declaration documents it, and whatever follows without an empty line between;
#   - a comment behind a declaration documents that one;
#   - the licence line and what stands inside function bodies and macros stays as it is;
#   - an override without words of its own does what the member that it overrides says;
#   - classes belong to the group of those who read about them (docs/reference.dox);
#   - deleted and defaulted members need no words and are left out.

function flush_paragraph(    i)
{
    grouped = leads_with_comment && declarations > 1
    if (overrides && !leads_with_comment) print "/// As the base class says."
    if (leads_with_comment && lines[count] ~ /^(class|struct|enum|template)/) print "/// \\ingroup " group()
    if (grouped) print "///@{"
    for (i = 1; i <= count; ++i) print lines[i]
    if (grouped) print "///@}"
    count = declarations = leads_with_comment = behind = overrides = 0
}

function add(line) { lines[++count] = line }

function group()
{
    if (FILENAME ~ /varn\/host\/|service_(stub|intf)\.h$/) return "serving"
    return FILENAME ~ /varn\// ? "porting" : "calling"
}

/^\/\/ SPDX/ { print ""; next }

# A function body: from a brace on a line of its own to its partner.
in_body { add($0); if ($0 == body_end) { in_body = 0; ++declarations } next }
/^ *\{$/ { in_body = 1; body_end = $0; sub(/\{/, "}", body_end); add($0); next }

/^#/ || in_macro { flush_paragraph(); print; in_macro = /\\$/; next }
/^ *$/ { flush_paragraph(); print; next }
/ = (delete|default);/ { add(""); next }

# What opens or closes a scope ends a paragraph.
/^ *(public|protected|private):$/ || /^ *\}/ { flush_paragraph(); print; next }
/\{$/ { flush_scope = 1 }

/^ *\/\// {
    if (behind) sub(/\/\//, "///<")
    else sub(/\/\//, "///")
    if (count == 0) leads_with_comment = 1
    add($0)
    next
}

/ override/ { overrides = 1 }

{
    behind = sub(/  \/\/ /, " ///< ")
    add($0)
    if (flush_scope) { declarations = 0; flush_paragraph(); flush_scope = 0 }
    else if (/[;}]( *\/\/\/<.*)?$/) ++declarations
}

END { flush_paragraph() }

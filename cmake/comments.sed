# Makes Doxygen take the plain comments before declarations for documentation, word by word.
/^ *\/\/( |$)/ {
    s/[\@#<>&]/\\&/g
    s/`([^`]*)`/<code>\1<\/code>/g
    s/\/\//\/\/\//
    s/\/ (Ownership|Units|Raises|Rule): /\/ @duty{\1} /
}

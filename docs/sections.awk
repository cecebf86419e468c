# Doxygen's filter for Markdown: gives headings the names by which a Git page's own links find them.
FNR == 1 {
    page = FILENAME
    sub(ENVIRON["PWD"] "/", "", page)
    gsub(/[^A-Za-z0-9]+/, "_", page)
}
/^ *```/ { isCode = !isCode }
!isCode && /^##/ {
    name = tolower($0)
    gsub(/^#+ +|[^a-z0-9 _-]/, "", name)
    gsub(/ /, "-", name)
    $0 = $0 " {#" page "_" name "}"
}
!isCode { gsub(/\]\(#/, "](#" page "_") }
{ print }

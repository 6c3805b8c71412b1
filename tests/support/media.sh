# Small real audio files made with Debian's encoders from a quarter second of silence. Source it.
#   make_song FILE TITLE ARTIST ALBUM GENRE   .mp3 (ID3v2), .flac or .ogg; an empty TITLE: no tags
#   make_song_latin1 FILE TITLE ARTIST        an MP3 with only an ID3v1 tag, in Latin-1
#   make_song_utf16 FILE TITLE ARTIST         an MP3 with a UTF-16 ID3v2 tag

_media_silence() {
  local raw=$1
  [ -s "$raw" ] || head -c 4000 /dev/zero > "$raw"
}

make_song() {
  local file=$1 title=$2 artist=$3 album=$4 genre=$5
  local raw="${TMPDIR:-/tmp}/pelio-silence-$$.raw"
  _media_silence "$raw"
  mkdir -p "$(dirname "$file")"
  case "$file" in
    *.mp3)
      if [ -n "$title" ]; then
        lame --quiet -r -s 8 --bitwidth 16 -m m --id3v2-only --tt "$title" --ta "$artist" \
          --tl "$album" --tg "$genre" "$raw" "$file" 2>/dev/null
      else
        lame --quiet -r -s 8 --bitwidth 16 -m m "$raw" "$file" 2>/dev/null
      fi ;;
    *.flac)
      local tags=()
      [ -n "$title" ] && tags=(-T "TITLE=$title" -T "ARTIST=$artist" -T "ALBUM=$album" -T "GENRE=$genre")
      flac --silent --force --force-raw-format --endian=little --sign=signed --channels=1 --bps=16 \
        --sample-rate=8000 "${tags[@]}" "$raw" -o "$file" ;;
    *.ogg)
      local tags=()
      [ -n "$title" ] && tags=(-t "$title" -a "$artist" -l "$album" -G "$genre")
      oggenc -Q -r -B 16 -C 1 -R 8000 "${tags[@]}" "$raw" -o "$file" >/dev/null 2>&1 ;;
    *) echo "make_song: unknown format $file" >&2; return 1 ;;
  esac
}

# One ID3v1 field: the text in Latin-1, cut or padded with NULs to width bytes.
_id3v1_field() { { printf '%s' "$1" | iconv -f UTF-8 -t LATIN1; head -c "$2" /dev/zero; } | head -c "$2"; }

make_song_latin1() {
  make_song "$1" "" "" "" ""
  { printf 'TAG'; _id3v1_field "$2" 30; _id3v1_field "$3" 30; head -c 64 /dev/zero; printf '\xff'; } >> "$1"
}

make_song_utf16() {
  local raw="${TMPDIR:-/tmp}/pelio-silence-$$.raw"
  _media_silence "$raw"
  mkdir -p "$(dirname "$1")"
  lame --quiet -r -s 8 --bitwidth 16 -m m --id3v2-only --id3v2-utf16 --tt "$2" --ta "$3" \
    "$raw" "$1" 2>/dev/null
}

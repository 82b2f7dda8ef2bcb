#!/usr/bin/env bash
# Renders Hoplift's bitmap artwork from the SVG sources beside this script:
#
#   default-logo.gif, default-background.gif  the header's default branding (Qt reads
#                                             them through its GIF plugin)
#   icons/hicolor/SIZExSIZE/apps/hoplift.png  the application icon: 16 px from the
#                                             pixel-grid drawing icons/hoplift-16.svg,
#                                             22 to 512 px from hoplift.svg
#   icons/hicolor/scalable/apps/hoplift.svg   a copy of hoplift.svg
#
# Run it after changing one of those SVGs and commit what it writes; the build itself
# only uses the files as they are. It needs librsvg2-bin (rsvg-convert) and imagemagick
# (convert), and uses optipng when it is installed:
#
#   sudo apt-get install -y librsvg2-bin imagemagick optipng
#   bash resources/render.sh
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
cd "$here"

for tool in rsvg-convert convert; do
    command -v "$tool" >/dev/null || { echo "render.sh: $tool is missing (apt-get install -y librsvg2-bin imagemagick)" >&2; exit 1; }
done

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# The logo is drawn on a transparent background, but GIF transparency is all or
# nothing: blend its soft edges onto the dark header colour, then keep as transparent
# only the pixels that were (almost) empty.
header_matte='#2e2e2e'
rsvg-convert default-logo.svg -o "$scratch/logo.png"
convert "$scratch/logo.png" \
    \( +clone -background "$header_matte" -alpha remove -alpha off \) \
    \( "$scratch/logo.png" -alpha extract -threshold 12% \) \
    -delete 0 -compose CopyOpacity -composite default-logo.gif

# The background is opaque and has few colours: no dithering needed.
rsvg-convert default-background.svg -o "$scratch/background.png"
convert "$scratch/background.png" -alpha off +dither -colors 256 default-background.gif

# The application icon.
for size in 16 22 24 32 48 64 128 256 512; do
    source=hoplift.svg
    [ "$size" -eq 16 ] && source=icons/hoplift-16.svg
    dir=icons/hicolor/${size}x${size}/apps
    mkdir -p "$dir"
    rsvg-convert -w "$size" -h "$size" "$source" -o "$dir/hoplift.png"
    if command -v optipng >/dev/null; then optipng -quiet -strip all -o5 "$dir/hoplift.png"; fi
done
mkdir -p icons/hicolor/scalable/apps
cp hoplift.svg icons/hicolor/scalable/apps/hoplift.svg

echo "render.sh: wrote default-logo.gif, default-background.gif and icons/hicolor/"

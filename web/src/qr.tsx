// A QR code as a picture of one path.
import qrcode from 'qrcode-generator'
import { useMemo } from 'preact/hooks'
import { binary } from './format'

const QUIET = 4 // modules around the code
const MODULE = 4 // pixels, a whole number of them, so that all are alike

export function QrCode({ text, label }: { text: string; label: string }) {
  const { size, path } = useMemo(() => {
    const code = qrcode(0, 'M')
    code.addData(binary(text), 'Byte')
    code.make()
    const count = code.getModuleCount()
    let out = ''
    for (let row = 0; row < count; ++row)
      for (let column = 0; column < count; ++column)
        if (code.isDark(row, column)) out += `M${column + QUIET} ${row + QUIET}h1v1h-1z`
    return { size: count + 2 * QUIET, path: out }
  }, [text])
  return (
    <svg
      class="qr"
      width={size * MODULE}
      height={size * MODULE}
      viewBox={`0 0 ${size} ${size}`}
      role="img"
      aria-label={label}
      shape-rendering="crispEdges"
    >
      <rect width={size} height={size} fill="#fff" />
      <path d={path} fill="#000" />
    </svg>
  )
}

// Files dropped anywhere on the page. The part of the page that asked last gets them; a browser would leave the page otherwise.
import { useEffect, useRef, useState } from 'preact/hooks'

interface Taker {
  take: (files: File[]) => void
  over: (over: boolean) => void
}
const takers: Taker[] = []

const LEAVES = 600 // milliseconds without a word of files above the page

let timer: ReturnType<typeof setTimeout> | undefined
const show = (over: boolean) =>
  takers.forEach((one, at) => one.over(over && at === takers.length - 1))

function drag(event: DragEvent): void {
  if (!event.dataTransfer?.types.includes('Files')) return
  event.preventDefault()
  event.dataTransfer.dropEffect = takers.length > 0 ? 'copy' : 'none'
  show(true)
  clearTimeout(timer)
  timer = setTimeout(() => show(false), LEAVES) // a browser tells again and again for as long as they are there
}
function drop(event: DragEvent): void {
  if (!event.dataTransfer?.types.includes('Files')) return
  event.preventDefault()
  clearTimeout(timer)
  show(false)
  const files = [...event.dataTransfer.files]
  if (files.length > 0) takers[takers.length - 1]?.take(files)
}
export function watchDrops(): void {
  window.addEventListener('dragenter', drag)
  window.addEventListener('dragover', drag)
  window.addEventListener('drop', drop)
}

// Takes dropped files while `wanted`; true while some are held above the page.
export function useFileDrop(wanted: boolean, take: (files: File[]) => void): boolean {
  const [over, setOver] = useState(false)
  const latest = useRef(take)
  latest.current = take
  useEffect(() => {
    if (!wanted) return
    const taker: Taker = { take: files => latest.current(files), over: setOver }
    takers.push(taker)
    return () => {
      takers.splice(takers.indexOf(taker), 1)
      setOver(false)
    }
  }, [wanted])
  return over
}

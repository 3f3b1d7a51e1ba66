// Curves over the last minutes.
import { useEffect, useRef } from 'preact/hooks'
import uPlot from 'uplot'
import 'uplot/dist/uPlot.min.css'
import { clock, rate } from './format'

export interface Curve {
  label: string
  colour: string // a property of the style sheet
}

const HEIGHT = 220
const WIDTH = 2
const SPAN = 300 // seconds
const STEPS = Array.from({ length: 40 }, (_, power) => 2 ** power) // between lines, so that they stand at round KiB

function options(curves: readonly Curve[], width: number): uPlot.Options {
  const style = getComputedStyle(document.documentElement)
  const colour = (name: string) => style.getPropertyValue(name).trim()
  const axis = { stroke: colour('--soft'), grid: { stroke: colour('--line'), width: 1 }, ticks: { show: false } }
  return {
    width,
    height: HEIGHT,
    legend: { show: false },
    cursor: { y: false, points: { size: 6 } },
    scales: {
      x: { range: (_plot, _least, most) => [most - SPAN, most] },
      y: { range: (_plot, _least, most) => [0, Math.max(most * 1.1, 1024)] },
    },
    axes: [
      { ...axis, values: (_plot, times) => times.map((time) => clock(new Date(time * 1000))), space: 90, size: 30 },
      { ...axis, values: (_plot, rates) => rates.map((one) => rate(one)), size: 84, incrs: STEPS },
    ],
    series: [{}, ...curves.map((curve) => ({ label: curve.label, stroke: colour(curve.colour), width: WIDTH, points: { show: false } }))],
  }
}

export default function Graph({ curves, points, label }: { curves: readonly Curve[]; points: number[][]; label: string }) {
  const box = useRef<HTMLDivElement>(null)
  const plot = useRef<uPlot | null>(null)
  const latest = useRef(points)
  latest.current = points

  useEffect(() => {
    const place = box.current
    if (!place) return
    const draw = () => {
      plot.current?.destroy()
      plot.current = new uPlot(options(curves, place.clientWidth), latest.current as uPlot.AlignedData, place)
    }
    draw()
    const watch = new ResizeObserver(() => plot.current?.setSize({ width: place.clientWidth, height: HEIGHT }))
    watch.observe(place)
    const dark = matchMedia('(prefers-color-scheme: dark)')
    dark.addEventListener('change', draw)
    return () => {
      watch.disconnect()
      dark.removeEventListener('change', draw)
      plot.current?.destroy()
      plot.current = null
    }
  }, [curves])
  useEffect(() => plot.current?.setData(points as uPlot.AlignedData), [points])

  return <div ref={box} class="graph" role="img" aria-label={label} />
}
